// The payload entries of a package file, for package authors: `zpk contents`
// lists them and `zpk check` reports the ones the unpacker would refuse.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace quor {

struct PayloadEntry {
    std::string name;  // as stored
    char type = '?';   // 'f' file, 'd' folder, 'l' symbolic link, 'h' hard link, '?' other
    mode_t perm = 0;
    long long size = 0;
    long long mtime = 0;
    std::string linkTarget;  // of a symbolic or hard link
    std::string refusal;     // why installing would refuse the entry; empty when safe
};

struct PayloadListing {
    std::string member;  // "package.tgz" or "package.tzst"
    std::string md5;     // of the payload member's bytes, lower-case hex
    std::vector<PayloadEntry> entries;
};

// Reads every payload entry with the unpacker's entry checks, without
// writing anything. kOk, or a result code with a reason in `error` when the
// file or its payload cannot be read. Unsafe entries are listed, with their
// refusal, not treated as errors.
int listPayload(const std::filesystem::path& file, PayloadListing& out,
                std::string* error = nullptr);

}  // namespace quor
