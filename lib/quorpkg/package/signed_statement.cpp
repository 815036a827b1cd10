#include "quorpkg/package/signed_statement.h"

#include <cstdio>

#include "quorpkg/package/md5.h"
#include "quorpkg/package/signing_key.h"

namespace quor {
namespace {

constexpr std::string_view kSignaturePrefix = "signature ";
constexpr std::string_view kKeyPrefix = "key ";

// The next line of `text` from `pos` without its newline; nothing when no
// newline ends it.
std::optional<std::string_view> nextLine(std::string_view text, size_t& pos) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) return std::nullopt;
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    return line;
}

std::string_view kindWord(StatementKind kind) {
    return kind == StatementKind::kPackage ? "package" : "catalog";
}

}  // namespace

std::string statementHeader(StatementKind kind, std::string_view keyId) {
    return "quorpkg " + std::string(kindWord(kind)) + " signature 1\n" + std::string(kKeyPrefix) +
           std::string(keyId) + "\n";
}

std::string formatSigned(std::string_view signature, std::string_view statement) {
    return std::string(kSignaturePrefix) + toHex(signature) + "\n" + std::string(statement);
}

std::optional<SignedStatement> parseSigned(std::string_view text, StatementKind kind,
                                           std::string& why) {
    size_t pos = 0;
    std::optional<std::string_view> first = nextLine(text, pos);
    std::optional<std::string> signature;
    if (first && first->substr(0, kSignaturePrefix.size()) == kSignaturePrefix)
        signature = fromHex(first->substr(kSignaturePrefix.size()));
    if (!signature || signature->size() != 64) {
        why = "no signature line";
        return std::nullopt;
    }
    SignedStatement out;
    out.signature = std::move(*signature);
    out.statement = std::string(text.substr(pos));
    std::optional<std::string_view> header = nextLine(text, pos);
    std::optional<std::string_view> key = nextLine(text, pos);
    const std::string title = "quorpkg " + std::string(kindWord(kind)) + " signature 1";
    if (!header || *header != title || !key || key->substr(0, kKeyPrefix.size()) != kKeyPrefix ||
        !isLowerHex(key->substr(kKeyPrefix.size()), 16)) {
        why = "not a " + std::string(kindWord(kind)) + " signature";
        return std::nullopt;
    }
    out.keyId = std::string(key->substr(kKeyPrefix.size()));
    out.body = std::string(text.substr(pos));
    if (!out.body.empty() && out.body.back() != '\n') {
        why = "the signature ends inside a line";
        return std::nullopt;
    }
    return out;
}

std::string memberLine(const MemberRecord& member) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", member.mode & 07777);
    const std::string name = member.name.empty() ? "." : member.name;
    return std::string(member.directory ? "dir " : "file ") + mode + " " +
           std::to_string(member.size) + " " + (member.directory ? "-" : member.sha256) + " " +
           name + "\n";
}

std::string memberLines(const std::vector<MemberRecord>& members) {
    std::string out;
    for (const MemberRecord& member : members) out += memberLine(member);
    return out;
}

std::string firstDifference(std::string_view expected, std::string_view actual) {
    size_t a = 0, b = 0;
    for (;;) {
        std::optional<std::string_view> left = nextLine(expected, a);
        std::optional<std::string_view> right = nextLine(actual, b);
        if (!left && !right) return {};
        if (!left) return "not signed: " + std::string(*right);
        if (!right) return "missing: " + std::string(*left);
        if (*left != *right)
            return "signed: " + std::string(*left) + ", found: " + std::string(*right);
    }
}

std::string listedSha256(std::string_view body, std::string_view name) {
    size_t pos = 0;
    while (std::optional<std::string_view> line = nextLine(body, pos)) {
        // "file MODE SIZE SHA256 NAME": the name is the rest of the line.
        if (line->substr(0, 5) != "file ") continue;
        size_t modeEnd = line->find(' ', 5);
        size_t sizeEnd = modeEnd == std::string_view::npos ? modeEnd : line->find(' ', modeEnd + 1);
        if (sizeEnd == std::string_view::npos || line->size() < sizeEnd + 66) continue;
        if (line->substr(sizeEnd + 66) == name) return std::string(line->substr(sizeEnd + 1, 64));
    }
    return {};
}

}  // namespace quor
