// A temporary file beside its final place, for writers of package files.
// Internal to this folder.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/file_util.h"

namespace quor {

// A temporary file beside its final place, removed unless committed.
class TempFile {
public:
    explicit TempFile(const std::filesystem::path& final) : final_(final) {
        std::string hidden = ".";
        hidden += final.filename().string();
        hidden += ".XXXXXX";
        name_ = (final.has_parent_path() ? final.parent_path() : std::filesystem::path("."))
                    .append(hidden)
                    .string();
        fd_ = UniqueFd(::mkstemp(name_.data()));
        if (!fd_) name_.clear();
    }
    ~TempFile() {
        if (!name_.empty()) ::unlink(name_.c_str());
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    int fd() const { return fd_.get(); }
    const std::string& name() const { return name_; }
    bool commit() {
        bool ok = ::fchmod(fd_.get(), 0644) == 0 && ::fsync(fd_.get()) == 0 &&
                  ::rename(name_.c_str(), final_.c_str()) == 0;
        if (ok) name_.clear();
        return ok;
    }

private:
    std::filesystem::path final_;
    std::string name_;
    UniqueFd fd_;
};

}  // namespace quor
