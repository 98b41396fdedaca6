// CURVE keys of ZeroMQ in files: what oxkeygen writes, what the broker host and the clients read.
//
// A key pair is two files of one name: NAME.key holds the secret key (mode 0600) and NAME.pub the
// public one. Each holds comment lines, starting with '#', and one line with the key in Z85 text
// (40 characters). The broker host admits the clients whose NAME.pub lies in its directory of
// allowed keys; a client needs the broker's .pub and its own .key (docs/security.md).
#pragma once

#include <string>
#include <vector>

namespace OX {

// Z85 text, 40 characters each.
struct CurveKeyPair {
  std::string fPublic;
  std::string fSecret;
};

// Throws OXError when ZeroMQ has no CURVE.
CurveKeyPair makeCurveKeyPair();
// Writes pDirectory/pName.key and pDirectory/pName.pub, making the directory if need be. Refuses,
// with an OXError that names the file, to replace a key that exists.
void writeCurveKeyPair(const std::string& pDirectory, const std::string& pName,
                       const CurveKeyPair& pKeys);
// The key of a .key or .pub file; throws an OXError that names the file and what is wrong.
std::string readCurveKey(const std::string& pPath);
// The public key of a secret key (Z85); throws OXError for a malformed one.
std::string curvePublicKey(const std::string& pSecret);
// The keys of every *.pub file of pDirectory, in the order of their names; throws an OXError when
// the directory cannot be read or a file is malformed.
std::vector<std::string> readAllowedKeys(const std::string& pDirectory);

}  // namespace OX
