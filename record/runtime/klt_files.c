/* Creates and writes the files of a spool. See klt_files.h. */
#include "record/runtime/klt_files.h"

#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

/* Descriptors begin here, above those that programs expect to get. */
enum { FIRST_DESCRIPTOR = 200, HEADER_BYTES = 4096 };

struct file {
  char path[PATH_MAX];
  int descriptor;
  dev_t device;
  ino_t inode;
};
static struct file spool = {.descriptor = -1};
static struct file defs = {.descriptor = -1};
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

/* A copy of a descriptor with a high number, if there is one. */
static int moveUp(int descriptor) {
  const int high = fcntl(descriptor, F_DUPFD_CLOEXEC, FIRST_DESCRIPTOR);
  if (high < 0) return descriptor;
  close(descriptor);
  return high;
}

static int openFile(struct file* file, int flags) {
  const int descriptor = open(file->path, flags | O_RDWR | O_CLOEXEC, 0666);
  if (descriptor < 0) return -1;
  struct stat status;
  fstat(descriptor, &status);
  file->device = status.st_dev;
  file->inode = status.st_ino;
  file->descriptor = moveUp(descriptor);
  return file->descriptor;
}

static int isOpen(const struct file* file) {
  struct stat status;
  return file->descriptor >= 0 && fstat(file->descriptor, &status) == 0 &&
         status.st_dev == file->device && status.st_ino == file->inode;
}

/* The descriptor of a file that has been created, or -1 with errno. */
static int descriptorOf(struct file* file, int flags) {
  if (!isOpen(file)) {
    pthread_mutex_lock(&lock);
    if (!isOpen(file)) openFile(file, flags);
    pthread_mutex_unlock(&lock);
  }
  return file->descriptor;
}

/* A write above the limit of file sizes fails without the signal, which would end the program. */
static void blockSizeSignal(sigset_t* before) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &signals, before);
}

static void unblockSizeSignal(const sigset_t* before) {
  const struct timespec now = {0, 0};
  sigset_t signals;
  const int saved = errno;
  sigemptyset(&signals);
  sigaddset(&signals, SIGXFSZ);
  if (!sigismember(before, SIGXFSZ)) {
    while (sigtimedwait(&signals, NULL, &now) == SIGXFSZ) {
    }
  }
  pthread_sigmask(SIG_SETMASK, before, NULL);
  errno = saved;
}

static void hostName(char* name, size_t size) {
  if (gethostname(name, size) != 0) snprintf(name, size, "host");
  name[size - 1] = '\0';
  for (char* c = name; *c != '\0'; ++c) {
    if (*c == '/') *c = '_';
  }
}

/* Removes the files of process `pid` of this host. */
static void removeFilesOf(const char* dir, const char* host, long pid) {
  char pattern[PATH_MAX];
  glob_t found;
  snprintf(pattern, sizeof pattern, "%s/%s-%ld-*", dir, host, pid);
  if (glob(pattern, GLOB_NOSORT, NULL, &found) == 0) {
    for (size_t i = 0; i < found.gl_pathc; ++i) unlink(found.gl_pathv[i]);
  }
  globfree(&found);
}

struct klt_spool_header* klt_open_spool(int keep_parent) {
  const char* dir = getenv("KLT_RECORD_DIR");
  const char* first = getenv("KLT_RECORD_PID");
  char host[64];
  hostName(host, sizeof host);
  if (mkdir(dir, 0777) != 0 && errno != EEXIST) return NULL;
  removeFilesOf(dir, host, (long)getpid());
  if (first != NULL && !keep_parent) removeFilesOf(dir, host, strtol(first, NULL, 10));
  snprintf(spool.path, sizeof spool.path, "%s/%s-%ld-0.spool", dir, host, (long)getpid());
  snprintf(defs.path, sizeof defs.path, "%s/%s-%ld-0.defs", dir, host, (long)getpid());
  /* Another process that is at its end may remove the empty directory. */
  for (int i = 0; i < 10 && openFile(&spool, O_CREAT | O_EXCL) < 0; ++i) {
    if (errno != ENOENT || (mkdir(dir, 0777) != 0 && errno != EEXIST)) return NULL;
  }
  if (spool.descriptor < 0 || openFile(&defs, O_CREAT | O_EXCL | O_APPEND) < 0) return NULL;
  return klt_map(0, HEADER_BYTES);
}

void klt_forget_files(void) {
  if (isOpen(&spool)) close(spool.descriptor);
  if (isOpen(&defs)) close(defs.descriptor);
  spool.descriptor = defs.descriptor = -1;
  pthread_mutex_init(&lock, NULL);
}

void* klt_map(off_t at, size_t bytes) {
  const int descriptor = descriptorOf(&spool, 0);
  if (descriptor < 0) return NULL;
  sigset_t before;
  blockSizeSignal(&before);
  const int error = posix_fallocate(descriptor, at, (off_t)bytes);
  unblockSizeSignal(&before);
  if (error != 0) {
    errno = error;
    return NULL;
  }
  void* mapped = mmap(NULL, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, at);
  return mapped == MAP_FAILED ? NULL : mapped;
}

static int writeAll(int descriptor, const char* from, size_t size, off_t at) {
  while (size != 0) {
    const ssize_t written = pwrite(descriptor, from, size, at);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return written == 0 ? ENOSPC : errno;
    from += written;
    at += written;
    size -= (size_t)written;
  }
  return 0;
}

int klt_write_slot(const void* bytes, size_t size, off_t at) {
  sigset_t before;
  blockSizeSignal(&before);
  const int error = writeAll(descriptorOf(&spool, 0), bytes, size, at);
  unblockSizeSignal(&before);
  return error;
}

int klt_has_spool(void) {
  struct stat status;
  return stat(spool.path, &status) == 0 && status.st_ino == spool.inode;
}

void klt_define(uint32_t kind, uint32_t id, uint32_t other, const void* first, size_t first_bytes,
                const void* second, size_t second_bytes) {
  if (klt_state == KLT_OFF) return;
  const int saved = errno;
  const int descriptor = descriptorOf(&defs, O_APPEND);
  struct klt_spool_def def = {kind, (uint32_t)(first_bytes + second_bytes), id, other};
  /* writev doesn't change what is written. */
  struct iovec parts[3] = {{&def, sizeof def},
                           {(void*)(uintptr_t)first, first_bytes},
                           {(void*)(uintptr_t)second, second_bytes}};
  const size_t size = sizeof def + first_bytes + second_bytes;
  sigset_t before;
  blockSizeSignal(&before);
  pthread_mutex_lock(&lock);
  ssize_t written;
  do {
    written = writev(descriptor, parts, 3);
  } while (written < 0 && errno == EINTR);
  const int error = written < 0 ? errno : ENOSPC;
  pthread_mutex_unlock(&lock);
  unblockSizeSignal(&before);
  if (written != (ssize_t)size) klt_stop("a definition can't be written", error);
  errno = saved;
}

/* The identity of the host's clock: the name of the host and the identity of its boot. */
void klt_name_host(struct klt_spool_header* header) {
  char text[128] = "";
  hostName(header->host, sizeof header->host);
  const int boot = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
  if (boot >= 0) {
    const ssize_t got = read(boot, text, sizeof text - 1);
    text[got > 0 ? got : 0] = '\0';
    close(boot);
  }
  uint64_t hash = 14695981039346656037ULL; /* FNV-1a */
  for (const char* c = header->host; *c != '\0'; ++c) hash = (hash ^ (uint8_t)*c) * 1099511628211U;
  for (const char* c = text; *c != '\0'; ++c) hash = (hash ^ (uint8_t)*c) * 1099511628211U;
  header->host_hash = hash;
}

void klt_name_program(struct klt_spool_header* header) {
  const ssize_t got = readlink("/proc/self/exe", header->program, sizeof header->program - 1);
  header->program[got > 0 ? got : 0] = '\0';
}

void klt_define_maps(void) {
  FILE* maps = fopen("/proc/self/maps", "re");
  if (maps == NULL) return;
  char* text = NULL;
  size_t bytes = 0;
  FILE* kept = open_memstream(&text, &bytes);
  char line[PATH_MAX + 128];
  while (kept != NULL && fgets(line, sizeof line, maps) != NULL) {
    const char* rights = strchr(line, ' ');
    if (rights != NULL && strncmp(rights + 1, "r-x", 3) == 0 && strchr(line, '/') != NULL)
      fputs(line, kept);
  }
  if (kept != NULL) fclose(kept);
  fclose(maps);
  if (text != NULL) klt_define(KLT_DEF_MAPS, 0, 0, text, bytes, NULL, 0);
  free(text);
}

void klt_say(const char* format, ...) {
  char line[1024] = "klt-record: ";
  const size_t start = strlen(line);
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(line + start, sizeof line - start - 1, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  const size_t end = start + (size_t)length;
  const size_t size = end < sizeof line - 1 ? end : sizeof line - 2;
  line[size] = '\n';
  const int saved = errno;
  if (write(STDERR_FILENO, line, size + 1) < 0) errno = saved;
  errno = saved;
}
