#include "base/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>

#include "base/file_util.h"

namespace quor {

MappedFile::MappedFile(const std::filesystem::path& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd || ::fstat(fd.get(), &status_) != 0 || !S_ISREG(status_.st_mode)) return;
    opened_ = true;
    if (status_.st_size == 0) return;
    void* mapped =
        ::mmap(nullptr, static_cast<size_t>(status_.st_size), PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (mapped == MAP_FAILED) {
        opened_ = false;
        return;
    }
    data_ = static_cast<const char*>(mapped);
    size_ = static_cast<size_t>(status_.st_size);
}

MappedFile::~MappedFile() {
    if (data_) ::munmap(const_cast<char*>(data_), size_);
}

}  // namespace quor
