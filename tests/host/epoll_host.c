/* A program with a loop of its own that knows the stand-in host only by the names of two functions, if they
 * are there. It obeys one command a line on its standard input and answers each with "done COMMAND": turn
 * SECONDS     let the loop turn; it does not turn at all before the first of these block SECONDS    keep the
 * main thread from answering load LIBRARY     load a library on another thread, and wait for that fork make a
 * child that looks at the loop and exits by the front door run COMMAND      run a shell command, which must
 * succeed threads N        it must have this many threads now exit */
#include <dirent.h>
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static void* library;
static int turns;
static int (*descriptorOf)(void);
static int (*drain)(void);

static int queueDescriptor(void) {
  void* const where = library != NULL ? library : RTLD_DEFAULT;
  if (descriptorOf == NULL) *(void**)&descriptorOf = dlsym(where, "qbv_host_main_queue_descriptor");
  if (drain == NULL) *(void**)&drain = dlsym(where, "qbv_host_drain_main_queue");
  return turns && descriptorOf != NULL && drain != NULL ? descriptorOf() : -1;
}

/* One pass. Non-zero when standard input is readable. */
static int pass(int milliseconds) {
  const int loop = epoll_create1(EPOLL_CLOEXEC);
  struct epoll_event input = {.events = EPOLLIN, .data = {.fd = STDIN_FILENO}};
  struct epoll_event work = {.events = EPOLLIN, .data = {.fd = -1}};
  struct epoll_event ready[2];
  if (milliseconds < 0) epoll_ctl(loop, EPOLL_CTL_ADD, STDIN_FILENO, &input);
  if (queueDescriptor() >= 0) epoll_ctl(loop, EPOLL_CTL_ADD, queueDescriptor(), &work);
  const int count = epoll_wait(loop, ready, 2, milliseconds);
  close(loop);
  int readable = 0;
  for (int index = 0; index < count; ++index)
    if (ready[index].data.fd == -1)
      drain();
    else
      readable = 1;
  return readable;
}

static double now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static void turn(double seconds) {
  turns = 1;
  for (const double end = now() + seconds; now() < end;) pass((int)((end - now()) * 1000) + 1);
}

static void block(double seconds) {
  const double end = now() + seconds;
  while (now() < end) usleep(10000);
}

static void* load(void* path) {
  library = dlopen(path, RTLD_NOW);
  if (library == NULL) fprintf(stderr, "%s\n", dlerror());
  return NULL;
}

static int loadOnAnotherThread(char* path) {
  pthread_t thread;
  if (pthread_create(&thread, NULL, load, path) != 0) return 0;
  pthread_join(thread, NULL);
  return library != NULL;
}

/* The child must find nothing to do, and its exit must leave its parent's things alone. */
static int forkChild(void) {
  const pid_t child = fork();
  if (child == 0) {
    struct pollfd entry = {queueDescriptor(), POLLIN, 0};
    exit(poll(&entry, 1, 0) == 0 && drain() == 0 ? 0 : 1);
  }
  int status = 0;
  return waitpid(child, &status, 0) == child && status == 0;
}

static int threads(void) {
  DIR* const tasks = opendir("/proc/self/task");
  int count = -2;
  while (readdir(tasks) != NULL) ++count;
  closedir(tasks);
  return count;
}

static int dlopenIsFrom(const char* name) {
  Dl_info info;
  return dladdr(dlsym(RTLD_DEFAULT, "dlopen"), &info) != 0 && strstr(info.dli_fname, name) != NULL;
}

static int obey(char* line) {
  char* const argument = strchr(line, ' ') != NULL ? strchr(line, ' ') + 1 : line;
  if (strncmp(line, "turn ", 5) == 0)
    turn(atof(argument));
  else if (strncmp(line, "block ", 6) == 0)
    block(atof(argument));
  else if (strncmp(line, "load ", 5) == 0)
    return loadOnAnotherThread(argument);
  else if (strcmp(line, "fork") == 0)
    return forkChild();
  else if (strncmp(line, "run ", 4) == 0)
    return system(argument) == 0;
  else if (strncmp(line, "threads ", 8) == 0)
    return threads() == atoi(argument);
  else if (strncmp(line, "dlopen-from ", 12) == 0)
    return dlopenIsFrom(argument);
  else
    return 0;
  return 1;
}

/* Turns the loop until a whole line has come. */
static int readLine(char* line, size_t size) {
  size_t length = 0;
  for (;;) {
    if (!pass(-1)) continue;
    if (length + 1 >= size || read(STDIN_FILENO, &line[length], 1) != 1) return 0;
    if (line[length] == '\n') break;
    ++length;
  }
  line[length] = '\0';
  return 1;
}

int main(void) {
  char line[4096];
  while (readLine(line, sizeof line)) {
    if (strcmp(line, "exit") == 0) return 0;
    if (!obey(line)) {
      fprintf(stderr, "failed: %s\n", line);
      return 3;
    }
    printf("done %s\n", line);
    fflush(stdout);
  }
  return 0;
}
