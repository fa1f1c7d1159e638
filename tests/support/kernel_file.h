// A file of the test's own in the place of one of the kernel's.
#pragma once

#include "sandbox.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>

// The file stands there until this is gone.
class kernel_file {
  public:
    kernel_file(std::string path, const std::string &text) : path_(std::move(path)) {
        const std::string copy = fresh_folder() + "/text";
        write_file(copy, text);
        mounted_ = ::mount(copy.c_str(), path_.c_str(), nullptr, MS_BIND, nullptr) == 0;
        EXPECT_TRUE(mounted_) << path_;
    }
    ~kernel_file() {
        if (mounted_) {
            ::umount(path_.c_str());
        }
    }
    kernel_file(const kernel_file &) = delete;
    kernel_file &operator=(const kernel_file &) = delete;

  private:
    std::string path_;
    bool mounted_ = false;
};
