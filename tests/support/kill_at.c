/* The power goes at the n-th change of a file: preloaded into the daemon and its children, this
 * counts what they write, rename, make and remove, all of them together, and freezes everything in
 * the camera just before the one whose number stands in /usr/local/kill_at; the test then has what
 * was not flushed forgotten (camera stop --now). Or lets the n-th use of
 * something on the card fail, to be opened as well, with an error that stands there. */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

/* Shared by all processes through the file; number 0 only counts. */
struct counts {
    _Atomic long changes;
    long kill_at;
    _Atomic long uses;
    long fail_at;
    long error;
};
static struct counts *counts;

/* It is what cuts the power. Process 1 is the sandbox's. */
static const pid_t camera_init = 2;

__attribute__((constructor)) static void attach(void) {
    const int file = open("/usr/local/kill_at", O_RDWR | O_CLOEXEC);
    if (file >= 0) {
        void *memory = mmap(NULL, sizeof *counts, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        counts = memory == MAP_FAILED ? NULL : memory;
        close(file);
    }
}

static void change(void) {
    if (counts != NULL && atomic_fetch_add(&counts->changes, 1) + 1 == counts->kill_at) {
        kill(-1, SIGSTOP);
        kill(camera_init, SIGCONT);
        raise(SIGSTOP);
    }
}

static const char card[] = "/var/spool/storage/SD_DISK/Vandrel_";

/* Whether it is this use that fails, with errno. */
static bool fails(int folder, const char *path) {
    char at[512] = "";
    if (counts == NULL) {
        return false;
    }
    if (path == NULL || path[0] != '/') {
        char link[40];
        snprintf(link, sizeof link, "/proc/self/fd/%d", folder);
        const ssize_t size = folder == AT_FDCWD ? readlink("/proc/self/cwd", at, sizeof at - 1)
                                                : readlink(link, at, sizeof at - 1);
        at[size < 0 ? 0 : size] = '\0';
        path = path == NULL || strncmp(path, "Vandrel_", 8) != 0 ? at : card;
    }
    if (strncmp(path, card, sizeof card - 1) != 0 ||
        atomic_fetch_add(&counts->uses, 1) + 1 != counts->fail_at) {
        return false;
    }
    errno = (int)counts->error;
    return true;
}

static bool change_of(int file) {
    struct stat status;
    const int before = errno;
    const bool is_file = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
    errno = before;
    if (is_file) {
        change();
    }
    return !is_file || !fails(file, NULL);
}

static bool change_of_stream(FILE *stream) {
    return stream == NULL || change_of(fileno(stream));
}

static bool change_at(int folder, const char *path) {
    change();
    return !fails(folder, path);
}

#define REAL(name) (__extension__(__typeof__(&name)) dlsym(RTLD_NEXT, #name))

ssize_t write(int file, const void *bytes, size_t count) {
    return change_of(file) ? REAL(write)(file, bytes, count) : -1;
}
int fflush(FILE *stream) {
    return change_of_stream(stream) ? REAL(fflush)(stream) : EOF;
}
int fclose(FILE *stream) {
    const bool is_good = change_of_stream(stream);
    const int error = errno;
    const int result = REAL(fclose)(stream);
    errno = is_good ? errno : error;
    return is_good ? result : EOF;
}
int fsync(int file) {
    return change_of(file) ? REAL(fsync)(file) : -1;
}
int ftruncate64(int file, off64_t size) {
    return change_of(file) ? REAL(ftruncate64)(file, size) : -1;
}
int rename(const char *from, const char *to) {
    return change_at(AT_FDCWD, to) ? REAL(rename)(from, to) : -1;
}
int renameat(int from_folder, const char *from, int to_folder, const char *to) {
    return change_at(to_folder, to) ? REAL(renameat)(from_folder, from, to_folder, to) : -1;
}
int renameat2(int from_folder, const char *from, int to_folder, const char *to, unsigned flags) {
    return change_at(to_folder, to) ? REAL(renameat2)(from_folder, from, to_folder, to, flags) : -1;
}
int mkdir(const char *path, mode_t mode) {
    return change_at(AT_FDCWD, path) ? REAL(mkdir)(path, mode) : -1;
}
int unlink(const char *path) {
    return change_at(AT_FDCWD, path) ? REAL(unlink)(path) : -1;
}
int symlink(const char *target, const char *path) {
    return change_at(AT_FDCWD, path) ? REAL(symlink)(target, path) : -1;
}
/* The daemon's own way to open what lies on a card. */
long syscall(long number, ...) {
    long argument[6];
    va_list list;
    va_start(list, number);
    for (int i = 0; i < 6; i++) {
        argument[i] = va_arg(list, long);
    }
    va_end(list);
    if (number == SYS_openat2 && fails((int)argument[0], (const char *)argument[1])) {
        return -1;
    }
    return REAL(syscall)(number, argument[0], argument[1], argument[2], argument[3], argument[4],
                         argument[5]);
}
