// A child process with a pipe to its standard input and one from its standard output.
#pragma once

#include "handle.h"

#include <chrono>
#include <memory>
#include <sys/types.h>

// Made by popen2, ended and freed by pclose2, or freed alone by popen2_free.
struct popen2_file {
    pid_t pid = -1;
    unique_fd stdin;  // write end of the child's standard input
    unique_fd stdout; // read end of the child's standard output
};

// How long a child may take to end after SIGTERM before it gets SIGKILL.
inline constexpr std::chrono::milliseconds popen2_grace{2000};

// Starts argv[0], searched in PATH, with the null-terminated argv. Null if a pipe or the fork
// failed (errno says why); a program that can't be started is a child that ends with status 0. The
// child inherits no other descriptor but standard error. Any thread.
std::unique_ptr<popen2_file> popen2(const char *const argv[]);

// Ends the child: SIGTERM, after popen2_grace SIGKILL. Returns when the child is reaped, at the
// latest after twice the grace.
void popen2_term(popen2_file &file);

// Ends the child, closes both pipe ends and frees the record. Null is allowed.
void pclose2(std::unique_ptr<popen2_file> file);

// Closes both pipe ends and frees the record without touching the child. Null is allowed.
void popen2_free(std::unique_ptr<popen2_file> file);
