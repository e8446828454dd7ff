#pragma once
// A PKCS#11 module loaded through p11-kit, and a session with one of its tokens, logged in as
// the token's user: owners that log out, close, finalize and unload on every way out.

#include <filesystem>
#include <string>
#include <vector>

#include "tools/publish/keys/passphrase.h"

// p11-kit's own names (ck_rv_t, struct ck_attribute): its standard ones come as macros, such as
// `value`, that would rewrite whatever C++ follows.
#define CRYPTOKI_GNU 1
#include <p11-kit/p11-kit.h>
#include <p11-kit/pkcs11.h>

namespace th::publish {

class Pkcs11Module {
 public:
  Pkcs11Module() = default;
  ~Pkcs11Module();
  Pkcs11Module(const Pkcs11Module&) = delete;
  Pkcs11Module& operator=(const Pkcs11Module&) = delete;

  // Loads and initializes the module at `path` (a bare file name is looked for in p11-kit's
  // module folder). Problem: "PATH: the PKCS#11 module cannot be loaded: " and why.
  bool load(const std::filesystem::path& path, std::string& problem);
  // The slot holding the token labelled `label`. Problem: "no token labelled 'X' in PATH" and
  // the labels that are there.
  bool findToken(const std::string& label, ck_slot_id_t& slot, std::string& problem) const;
  CK_FUNCTION_LIST* functions() const { return functions_; }

 private:
  CK_FUNCTION_LIST* functions_ = nullptr;
  bool initialized_ = false;
  std::filesystem::path path_;
};

class Pkcs11Session {
 public:
  Pkcs11Session() = default;
  ~Pkcs11Session();
  Pkcs11Session(const Pkcs11Session&) = delete;
  Pkcs11Session& operator=(const Pkcs11Session&) = delete;

  // Opens a session with the token labelled `token` in `module`, which must outlive it
  // (read-write to make keys), and logs in with the PIN from `pin`. Problems name the token: "the
  // PIN is not accepted by token 'X'".
  bool open(const Pkcs11Module& module, const std::string& token, const PassphraseSource& pin,
            bool readWrite, std::string& problem);

  // The objects of `kind` labelled `label`.
  std::vector<ck_object_handle_t> find(ck_object_class_t kind, const std::string& label) const;
  // One attribute's value; false when the object has none the module will show.
  bool attribute(ck_object_handle_t object, ck_attribute_type_t type,
                 std::vector<unsigned char>& value) const;

  CK_FUNCTION_LIST* functions() const { return f_; }
  ck_session_handle_t handle() const { return session_; }

 private:
  bool login(const std::string& token, const PassphraseSource& pin, std::string& problem);

  CK_FUNCTION_LIST* f_ = nullptr;
  ck_session_handle_t session_ = CK_INVALID_HANDLE;
  bool loggedIn_ = false;
};

// What a return value means, in p11-kit's words.
std::string pkcs11Error(ck_rv_t result);

}  // namespace th::publish
