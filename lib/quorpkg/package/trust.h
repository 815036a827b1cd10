// Which publishers a device trusts, and whether a signed (or unsigned)
// package file or catalog passes. Devices trust the Ed25519 public keys in
// /etc/quorpkg/keys/*.pub. The setting require_signature (yes or no; any
// other value counts as yes) decides whether unsigned files and catalogs
// are refused; without it they are refused as soon as one key file is
// there. A signature that does not verify is refused in any case.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/settings.h"
#include "quorpkg/package/channel_metadata.h"
#include "quorpkg/package/signed_statement.h"
#include "quorpkg/package/signing_key.h"

namespace quor {

struct PackageFileHead;

struct TrustedKeys {
    std::vector<SigningKey> keys;
    // A *.pub file is there, whether it holds a key or not: a broken key
    // file must not turn the requirement off.
    bool anyKeyFile = false;

    const SigningKey* find(std::string_view id) const;
};

TrustedKeys loadTrustedKeys();

bool signatureRequired(const Settings& settings, const TrustedKeys& keys);

// A signature as found beside or inside what it signs.
struct FoundSignature {
    bool present = false;                      // there is one, readable or not
    std::optional<SignedStatement> statement;  // when it could be read
    std::string problem;                       // why it could not
};

// Whether `what` (named in messages) passes with the signature found: kOk,
// or kSignatureRefused with the reason (which key, which failure) in `why`.
// A signature by a key that is not trusted counts as none.
// `verifiedBy`, when given, gets the id of the trusted key that verified it.
int checkSignature(const FoundSignature& found, std::string_view what, std::string& why,
                   std::string* verifiedBy = nullptr);

// The trust check of a package file before it is installed: its signature,
// and that the INFO read is the one signed. The members themselves are
// compared with the signed list while unpacking. Without `root` the
// device's keys folder decides (local files, unverified sources); with it,
// the file must be signed by a publisher key that the root allows for the
// package's name (kTrustRefused otherwise), whatever the keys folder holds.
// `signer`, when given, gets the id of the key that vouched for the file.
int checkPackageTrust(const PackageFileHead& head, std::string_view what, std::string& why,
                      const SourceRoot* root = nullptr, std::string* signer = nullptr);

// The trust check of a downloaded catalog: `signatureText` is the content of
// its .sig file, or nothing when the server has none.
int checkCatalogTrust(std::string_view catalog, const std::optional<std::string>& signatureText,
                      std::string_view what, std::string& why, std::string* verifiedBy = nullptr);

// The body of a catalog statement for the catalog's bytes.
std::string catalogStatementBody(std::string_view catalog);

}  // namespace quor
