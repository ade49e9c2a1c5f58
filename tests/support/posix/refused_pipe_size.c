// Loaded into a program before its own libraries: no pipe can be enlarged. Each refusal adds a byte
// to the file that REFUSED_PIPE_SIZES names.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

typedef int (*Fcntl)(int, int, ...);

static int refuse(void) {
  const char* path = getenv("REFUSED_PIPE_SIZES");
  FILE* file = path == NULL ? NULL : fopen(path, "ae");
  if (file == NULL || fputc('x', file) == EOF || fclose(file) != 0) abort();
  errno = EPERM;
  return -1;
}

int fcntl(int descriptor, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (command == F_SETPIPE_SZ) return refuse();
  Fcntl system_fcntl;
  *(void**)&system_fcntl = dlsym(RTLD_NEXT, "fcntl");
  return system_fcntl(descriptor, command, argument);
}
