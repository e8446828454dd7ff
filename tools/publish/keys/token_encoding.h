#pragma once
// What a PKCS#11 token hands out, in the forms the launcher reads: public keys from their parts
// as PEM SubjectPublicKeyInfo, and ECDSA signatures from raw r||s as DER.

#include <string>
#include <vector>

namespace th::publish {

using Bytes = std::vector<unsigned char>;

// DER of the named curve P-256 (prime256v1), as a token's CKA_EC_PARAMS holds it.
extern const Bytes kP256Parameters;

// The PEM SubjectPublicKeyInfo of an RSA key (big-endian modulus and exponent), or of a P-256
// key from its CKA_EC_PARAMS and CKA_EC_POINT (the uncompressed point, bare or wrapped in a DER
// OCTET STRING as the standard asks). False: the parts are not such a key.
bool rsaPublicPem(const Bytes& modulus, const Bytes& exponent, std::string& pem);
bool p256PublicPem(const Bytes& parameters, const Bytes& point, std::string& pem);

// The DER ECDSA-Sig-Value of a raw signature, r and s of equal length one after the other.
bool ecdsaDer(const Bytes& raw, Bytes& der);

}  // namespace th::publish
