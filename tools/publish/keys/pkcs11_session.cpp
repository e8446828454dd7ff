#include "tools/publish/keys/pkcs11_session.h"

namespace th::publish {
namespace {

// A token's label: 32 bytes, padded with blanks.
std::string labelOf(const ck_token_info& info) {
  std::string label(reinterpret_cast<const char*>(info.label), sizeof info.label);
  return label.substr(0, label.find_last_not_of(' ') + 1);
}

std::vector<ck_slot_id_t> slotsWithTokens(CK_FUNCTION_LIST* f) {
  unsigned long slots = 0;
  std::vector<ck_slot_id_t> found;
  if (f->C_GetSlotList(1, nullptr, &slots) != CKR_OK) return found;
  found.resize(slots);
  if (f->C_GetSlotList(1, found.data(), &slots) != CKR_OK) slots = 0;
  found.resize(slots);
  return found;
}

}  // namespace

std::string pkcs11Error(ck_rv_t result) { return p11_kit_strerror(result); }

Pkcs11Module::~Pkcs11Module() {
  if (initialized_) p11_kit_module_finalize(functions_);
  if (functions_ != nullptr) p11_kit_module_release(functions_);
}

bool Pkcs11Module::load(const std::filesystem::path& path, std::string& problem) {
  path_ = path;
  functions_ = p11_kit_module_load(path.c_str(), 0);
  const ck_rv_t started = functions_ != nullptr ? p11_kit_module_initialize(functions_) : CKR_OK;
  initialized_ = functions_ != nullptr && started == CKR_OK;
  if (!initialized_) {
    const char* why = functions_ != nullptr ? p11_kit_strerror(started) : p11_kit_message();
    problem = path.string() +
              ": the PKCS#11 module cannot be loaded: " + (why != nullptr ? why : "unknown reason");
  }
  return initialized_;
}

bool Pkcs11Module::findToken(const std::string& label, ck_slot_id_t& slot,
                             std::string& problem) const {
  std::string present;
  for (const ck_slot_id_t each : slotsWithTokens(functions_)) {
    ck_token_info info{};
    // An empty slot's blank token, which some modules always offer, is no one's token.
    if (functions_->C_GetTokenInfo(each, &info) != CKR_OK ||
        (info.flags & CKF_TOKEN_INITIALIZED) == 0) {
      continue;
    }
    if (labelOf(info) == label) {
      slot = each;
      return true;
    }
    present += (present.empty() ? "'" : ", '") + labelOf(info) + "'";
  }
  problem = "no token labelled '" + label + "' in " + path_.string() + " (" +
            (present.empty() ? "it has none" : "it has " + present) + ")";
  return false;
}

Pkcs11Session::~Pkcs11Session() {
  if (loggedIn_) f_->C_Logout(session_);
  if (session_ != CK_INVALID_HANDLE) f_->C_CloseSession(session_);
}

bool Pkcs11Session::open(const Pkcs11Module& module, const std::string& token,
                         const PassphraseSource& pin, bool readWrite, std::string& problem) {
  ck_slot_id_t slot = 0;
  f_ = module.functions();
  if (!module.findToken(token, slot, problem)) return false;
  const ck_flags_t flags = CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0);
  if (const ck_rv_t opened = f_->C_OpenSession(slot, flags, nullptr, nullptr, &session_);
      opened != CKR_OK) {
    session_ = CK_INVALID_HANDLE;
    problem = "token '" + token + "': no session: " + pkcs11Error(opened);
    return false;
  }
  return login(token, pin, problem);
}

bool Pkcs11Session::login(const std::string& token, const PassphraseSource& pin,
                          std::string& problem) {
  Passphrase text;
  if (!text.read(pin, "PIN of token '" + token + "': ", false, problem)) return false;
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(text.text().data()));
  const ck_rv_t result = f_->C_Login(session_, CKU_USER, bytes, text.text().size());
  loggedIn_ = result == CKR_OK;
  if (result == CKR_PIN_INCORRECT) {
    problem = "the PIN is not accepted by token '" + token + "'";
  } else if (result == CKR_PIN_LOCKED) {
    problem = "the PIN of token '" + token + "' is locked (too many wrong PINs)";
  } else if (!loggedIn_ && result != CKR_USER_ALREADY_LOGGED_IN) {
    problem = "token '" + token + "': cannot log in: " + pkcs11Error(result);
  }
  return problem.empty();
}

std::vector<ck_object_handle_t> Pkcs11Session::find(ck_object_class_t kind,
                                                    const std::string& label) const {
  std::string name = label;
  ck_attribute wanted[] = {{CKA_CLASS, &kind, sizeof kind}, {CKA_LABEL, name.data(), name.size()}};
  std::vector<ck_object_handle_t> found;
  if (f_->C_FindObjectsInit(session_, wanted, 2) != CKR_OK) return found;
  ck_object_handle_t batch[16];
  unsigned long got = 0;
  while (f_->C_FindObjects(session_, batch, 16, &got) == CKR_OK && got > 0) {
    found.insert(found.end(), batch, batch + got);
  }
  f_->C_FindObjectsFinal(session_);
  return found;
}

bool Pkcs11Session::attribute(ck_object_handle_t object, ck_attribute_type_t type,
                              std::vector<unsigned char>& bytes) const {
  ck_attribute asked{type, nullptr, 0};
  if (f_->C_GetAttributeValue(session_, object, &asked, 1) != CKR_OK ||
      asked.value_len == CK_UNAVAILABLE_INFORMATION) {
    return false;
  }
  bytes.resize(asked.value_len);
  asked.value = bytes.data();
  return f_->C_GetAttributeValue(session_, object, &asked, 1) == CKR_OK;
}

}  // namespace th::publish
