// What the code under test logs while one of these lives.
#pragma once

#include <mutex>
#include <string>
#include <vector>

struct logged_line {
    int level;
    std::string message;
};

class log_capture {
  public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    std::vector<logged_line> lines() const;

    // The lines as "LEVEL MESSAGE", with the line number in "(module:123, errno: ...)" replaced by
    // #.
    std::vector<std::string> texts() const;

    void clear();

  private:
    mutable std::mutex mutex_;
    std::vector<logged_line> lines_; // guarded by mutex_
};
