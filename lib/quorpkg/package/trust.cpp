#include "quorpkg/package/trust.h"

#include <sys/stat.h>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/package_file.h"

namespace quor {
namespace {

int distrust(std::string& why, std::string text) {
    why = std::move(text);
    return kSignatureRefused;
}

}  // namespace

const SigningKey* TrustedKeys::find(std::string_view id) const {
    for (const SigningKey& key : keys)
        if (key.id() == id) return &key;
    return nullptr;
}

TrustedKeys loadTrustedKeys() {
    TrustedKeys out;
    const std::filesystem::path dir = layout::trustedKeysDir();
    for (const std::string& name : entriesOfType(dir, S_IFREG)) {
        if (name.size() <= 4 || name.compare(name.size() - 4, 4, ".pub") != 0) continue;
        out.anyKeyFile = true;
        if (std::optional<SigningKey> key = SigningKey::loadPublic(dir / name))
            out.keys.push_back(std::move(*key));
    }
    return out;
}

bool signatureRequired(const Settings& settings, const TrustedKeys& keys) {
    if (settings.require_signature.empty()) return keys.anyKeyFile;
    return settings.require_signature != "no";
}

int checkSignature(const FoundSignature& found, std::string_view what, std::string& why,
                   std::string* verifiedBy) {
    const std::string name(what);
    if (found.present && !found.statement)
        return distrust(why, name + ": unreadable signature (" + found.problem + ")");
    const TrustedKeys keys = loadTrustedKeys();
    const bool required = signatureRequired(loadSettings(), keys);
    if (!found.present) {
        if (!required) return kOk;
        return distrust(why, name + " is not signed, and signatures are required");
    }
    const SignedStatement& statement = *found.statement;
    const SigningKey* key = keys.find(statement.keyId);
    if (!key) {
        if (!required) return kOk;
        return distrust(why,
                        name + " is signed by key " + statement.keyId + ", which is not trusted");
    }
    if (!key->verify(statement.statement, statement.signature))
        return distrust(why,
                        name + ": the signature by key " + statement.keyId + " does not verify");
    if (verifiedBy) *verifiedBy = statement.keyId;
    return kOk;
}

namespace {

// A file from a trusted source: its root's publisher keys, each for its
// names, and nothing else count.
int checkPublisherSignature(const PackageFileHead& head, std::string_view what,
                            const SourceRoot& root, std::string& why) {
    const std::string name(what);
    if (head.hasSignature && !head.signature)
        return distrust(why, name + ": unreadable signature (" + head.signatureProblem + ")");
    if (!head.signature)
        return distrust(
            why, name + " is not signed, and source " + root.source + " signs every package");
    const std::string& id = head.signature->keyId;
    if (!root.allows(id, head.manifest.name)) {
        why = name + " is signed by key " + id + ", which source " + root.source +
              " does not allow for " + head.manifest.name;
        return kTrustRefused;
    }
    auto raw = root.keys.find(id);
    std::optional<SigningKey> key =
        raw == root.keys.end() ? std::nullopt : SigningKey::fromRawPublic(raw->second);
    if (!key || !key->verify(head.signature->statement, head.signature->signature))
        return distrust(why, name + ": the signature by key " + id + " does not verify");
    return kOk;
}

}  // namespace

int checkPackageTrust(const PackageFileHead& head, std::string_view what, std::string& why,
                      const SourceRoot* root, std::string* signer) {
    FoundSignature found{head.hasSignature, head.signature, head.signatureProblem};
    if (int code = root ? checkPublisherSignature(head, what, *root, why)
                        : checkSignature(found, what, why, signer))
        return code;
    if (root && signer) *signer = head.signature->keyId;
    if (head.signature && listedSha256(head.signature->body, "INFO") != head.infoSha256)
        return distrust(why, std::string(what) + ": INFO differs from what key " +
                                 head.signature->keyId + " signed");
    return kOk;
}

std::string catalogStatementBody(std::string_view catalog) {
    return "sha256 " + dataSha256Hex(catalog) + "\n";
}

int checkCatalogTrust(std::string_view catalog, const std::optional<std::string>& signatureText,
                      std::string_view what, std::string& why, std::string* verifiedBy) {
    FoundSignature found;
    found.present = signatureText.has_value();
    if (signatureText)
        found.statement = parseSigned(*signatureText, StatementKind::kCatalog, found.problem);
    std::string key;
    if (int code = checkSignature(found, what, why, &key)) return code;
    if (found.statement && found.statement->body != catalogStatementBody(catalog))
        return distrust(why, std::string(what) + " differs from what key " +
                                 found.statement->keyId + " signed");
    if (verifiedBy) *verifiedBy = key;
    return kOk;
}

}  // namespace quor
