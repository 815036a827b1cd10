#include "quorpkg/package/channel_statement.h"

#include <algorithm>

#include "quorpkg/package/md5.h"

namespace quor {
namespace {

constexpr std::string_view kSignatureWord = "signature";

std::vector<std::string> words(std::string_view line) {
    std::vector<std::string> out;
    size_t begin = 0;
    for (;;) {
        size_t end = line.find(' ', begin);
        out.emplace_back(line.substr(begin, end - begin));
        if (end == std::string_view::npos) return out;
        begin = end + 1;
    }
}

bool printable(std::string_view line) {
    return std::all_of(line.begin(), line.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

// Where the signature lines begin: the offset of the first line that starts
// with "signature ", or the end.
size_t signaturesBegin(std::string_view text) {
    size_t pos = 0;
    while (pos < text.size()) {
        if (text.substr(pos, kSignatureWord.size() + 1) == "signature ") return pos;
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) return text.size();
        pos = end + 1;
    }
    return text.size();
}

std::optional<StatementSignature> signatureLine(const std::vector<std::string>& fields) {
    if (fields.size() != 3 || fields[0] != kSignatureWord || !isLowerHex(fields[1], 16) ||
        !isLowerHex(fields[2], 128))
        return std::nullopt;
    return StatementSignature{fields[1], *fromHex(fields[2])};
}

}  // namespace

std::string_view channelKindWord(ChannelKind kind) {
    switch (kind) {
        case ChannelKind::kRoot:
            return "root";
        case ChannelKind::kTimestamp:
            return "timestamp";
        case ChannelKind::kCatalog:
            return "catalog";
    }
    return "";
}

size_t maxStatementBytes(ChannelKind kind) {
    return kind == ChannelKind::kRoot ? 64 * 1024 : 16 * 1024;
}

std::string statementTitle(ChannelKind kind) {
    return "quorpkg " + std::string(channelKindWord(kind)) + " 2\n";
}

std::vector<const std::vector<std::string>*> ChannelStatement::all(std::string_view name) const {
    std::vector<const std::vector<std::string>*> out;
    for (const std::vector<std::string>& line : fields)
        if (line.front() == name) out.push_back(&line);
    return out;
}

std::optional<ChannelStatement> parseStatement(std::string_view text, ChannelKind kind,
                                               std::string& why) {
    const std::string kindName(channelKindWord(kind));
    auto refuse = [&](std::string reason) -> std::optional<ChannelStatement> {
        why = std::move(reason);
        return std::nullopt;
    };
    if (text.size() > maxStatementBytes(kind))
        return refuse("longer than a " + kindName + " may be (" +
                      std::to_string(maxStatementBytes(kind)) + " bytes)");
    const std::string title = statementTitle(kind);
    if (text.substr(0, title.size()) != title) return refuse("not a " + kindName + " statement");
    if (text.empty() || text.back() != '\n') return refuse("the last line is cut short");

    ChannelStatement out;
    out.kind = kind;
    const size_t split = signaturesBegin(text);
    out.signedText = std::string(text.substr(0, split));
    size_t pos = title.size();
    for (size_t number = 2; pos < text.size(); ++number) {
        const size_t end = text.find('\n', pos);
        const std::string_view line = text.substr(pos, end - pos);
        const std::string where = "line " + std::to_string(number);
        if (line.empty() || !printable(line) || line.front() == ' ' || line.back() == ' ' ||
            line.find("  ") != std::string_view::npos)
            return refuse(where + " is not a line of words");
        std::vector<std::string> fields = words(line);
        if (pos < split) {
            out.fields.push_back(std::move(fields));
        } else {
            std::optional<StatementSignature> signature = signatureLine(fields);
            if (!signature) return refuse(where + " is not a signature line");
            out.signatures.push_back(std::move(*signature));
        }
        pos = end + 1;
    }
    return out;
}

std::string addSignature(std::string_view text, const SigningKey& key, std::string& why) {
    const size_t split = signaturesBegin(text);
    if (split == 0 || text[split - 1] != '\n') {
        why = "the statement does not end with a whole line";
        return {};
    }
    const std::string_view signedText = text.substr(0, split);
    const std::string mark = "signature " + key.id() + " ";
    for (size_t pos = split; pos < text.size();) {
        if (text.substr(pos, mark.size()) == mark) {
            why = "key " + key.id() + " signed it already";
            return {};
        }
        size_t end = text.find('\n', pos);
        pos = end == std::string_view::npos ? text.size() : end + 1;
    }
    const std::string signature = key.sign(signedText);
    if (signature.empty()) {
        why = "key " + key.id() + " cannot sign (not a private key)";
        return {};
    }
    std::string out(text);
    if (!out.empty() && out.back() != '\n') out += '\n';
    return out + mark + toHex(signature) + "\n";
}

std::vector<std::string> verifiedSigners(const ChannelStatement& statement,
                                         const std::vector<std::string>& keyIds,
                                         const KeyTable& keys) {
    std::vector<std::string> out;
    for (const StatementSignature& signature : statement.signatures) {
        if (std::find(keyIds.begin(), keyIds.end(), signature.keyId) == keyIds.end() ||
            std::find(out.begin(), out.end(), signature.keyId) != out.end())
            continue;
        auto raw = keys.find(signature.keyId);
        if (raw == keys.end()) continue;
        std::optional<SigningKey> key = SigningKey::fromRawPublic(raw->second);
        if (key && key->verify(statement.signedText, signature.signature))
            out.push_back(signature.keyId);
    }
    return out;
}

}  // namespace quor
