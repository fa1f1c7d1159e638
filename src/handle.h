// Owners for what C hands out by pointer or number: files, folders, descriptors.
#pragma once

#include <cstdio>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

// A stateless deleter made from a function, so that the owner is as small as the pointer.
template <auto Function> struct deleter {
    template <typename T> void operator()(T *pointer) const noexcept { Function(pointer); }
};

inline void close_file(std::FILE *file) noexcept {
    std::fclose(file);
}
inline void close_folder(DIR *folder) noexcept {
    ::closedir(folder);
}

using unique_file = std::unique_ptr<std::FILE, deleter<close_file>>;
using unique_folder = std::unique_ptr<DIR, deleter<close_folder>>;

// Owns a descriptor; -1 is none.
class unique_fd {
  public:
    unique_fd() noexcept = default;
    explicit unique_fd(int descriptor) noexcept : descriptor_(descriptor) {}
    unique_fd(unique_fd &&other) noexcept : descriptor_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        if (this != &other) {
            (void)close();
            descriptor_ = other.release();
        }
        return *this;
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    ~unique_fd() { (void)close(); }

    [[nodiscard]] int get() const noexcept { return descriptor_; }
    explicit operator bool() const noexcept { return descriptor_ >= 0; }
    int release() noexcept { return std::exchange(descriptor_, -1); }

    // The result of close(2), with errno; 0 when there was nothing to close.
    int close() noexcept { return descriptor_ < 0 ? 0 : ::close(release()); }

  private:
    int descriptor_ = -1;
};
