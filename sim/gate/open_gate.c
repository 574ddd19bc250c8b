/* libtarvik-sim-gate.so: lets a simulated camera refuse open() as a real one does.
 *
 * umockdev serves the emulated nodes but cannot make opening one fail: the program under
 * tarvik-sim runs as whatever user it is (often root in CI, which file modes do not stop).
 * This small preload, loaded together with umockdev's, looks each /dev path up in the
 * testbed's gate directory, $UMOCKDEV_DIR/tarvik-gate, before the open goes on. An entry
 * there is a symbolic link named after the path ('/' written as '_', without the leading
 * one: "dev_bus_usb_001_002") whose target is the errno to answer: EACCES for a camera
 * without access rights, ENODEV for a camera gone or a video node whose driver is unbound.
 * The simulator makes and removes the links as the camera's state changes.
 *
 * Plain C, built without sanitizers: it is loaded into any program, instrumented or not. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define GATE_DIR "/tarvik-gate/"

/* The errno the gate holds for `path`, or 0 to let the open go on. The gate must come before
 * umockdev's preload in LD_PRELOAD: umockdev's open() goes straight to libc. */
static int refusal(const char* path) {
    const char* root = getenv("UMOCKDEV_DIR");
    if (path == NULL || root == NULL || strncmp(path, "/dev/", 5) != 0) return 0;
    const size_t rootLength = strlen(root);

    char entry[4096];
    const size_t pathLength = strlen(path + 1);
    if (rootLength + strlen(GATE_DIR) + pathLength + 1 > sizeof entry) return 0;
    memcpy(entry, root, rootLength);
    memcpy(entry + rootLength, GATE_DIR, strlen(GATE_DIR));
    char* name = entry + rootLength + strlen(GATE_DIR);
    for (size_t i = 0; i <= pathLength; ++i) name[i] = path[1 + i] == '/' ? '_' : path[1 + i];

    char target[16];
    const int saved = errno;
    const ssize_t n = readlink(entry, target, sizeof target - 1);
    errno = saved;
    if (n <= 0) return 0;
    target[n] = '\0';
    return atoi(target);
}

static void* next(const char* symbol) { return dlsym(RTLD_NEXT, symbol); }

/* open() and friends take a mode only with O_CREAT or O_TMPFILE. */
static mode_t mode_of(int flags, va_list ap) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(ap, mode_t) : 0;
}

#define GATE(path)                    \
    do {                              \
        const int no = refusal(path); \
        if (no != 0) {                \
            errno = no;               \
            return -1;                \
        }                             \
    } while (0)

int open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_of(flags, ap);
    va_end(ap);
    GATE(path);
    int (*real)(const char*, int, ...) = next("open");
    return real(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_of(flags, ap);
    va_end(ap);
    GATE(path);
    int (*real)(const char*, int, ...) = next("open64");
    return real(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_of(flags, ap);
    va_end(ap);
    GATE(path);
    int (*real)(int, const char*, int, ...) = next("openat");
    return real(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    const mode_t mode = mode_of(flags, ap);
    va_end(ap);
    GATE(path);
    int (*real)(int, const char*, int, ...) = next("openat64");
    return real(dirfd, path, flags, mode);
}

/* What _FORTIFY_SOURCE builds call instead of open(). */
int __open_2(const char* path, int flags) {
    GATE(path);
    int (*real)(const char*, int) = next("__open_2");
    return real(path, flags);
}

int __open64_2(const char* path, int flags) {
    GATE(path);
    int (*real)(const char*, int) = next("__open64_2");
    return real(path, flags);
}
