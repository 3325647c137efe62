/*
 * Downloads a URL into a file; each press of Enter pauses the transfer or lets it go on.
 *
 *   cc pause_resume.c $(pkg-config --cflags --libs kovo) -o pause_resume
 *   ./pause_resume https://example.org/image.iso image.iso
 */
#include <inttypes.h>
#include <kovo/kovo.h>
#include <poll.h>
#include <semaphore.h>
#include <stdatomic.h>
#include <stdio.h>
#include <unistd.h>

static sem_t finished;
static atomic_int over = 0;
static int result = 1;

static void finish(void) {
  over = 1;
  sem_post(&finished);
}

static void on_complete(kovo_instance kovo, void* context) {
  printf("complete\n");
  result = 0;
  finish();
}

static void on_error(kovo_instance kovo, uint32_t code, const char* message, void* context) {
  fprintf(stderr, "failed (%" PRIu32 "): %s\n", code, message);
  finish();
}

static void on_cancelled(kovo_instance kovo, void* context) {
  finish();
}

static void on_status(kovo_instance kovo, const char* version, uint32_t status, const char* reason,
                      void* context) {
  printf("%" PRIu32 " %s\n", status, reason);
  fflush(stdout);
}

/* The requests that ran have ended: from here on nothing moves. */
static void on_paused(kovo_instance kovo, void* context) {
  printf("paused\n");
  fflush(stdout);
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s URL FILE\n", argv[0]);
    return 2;
  }
  sem_init(&finished, 0, 0);

  kovo_instance kovo = kovoCreate(NULL);
  if (kovo == NULL) return 1;
  kovoRegisterCompletionCallback(kovo, on_complete);
  kovoRegisterErrorCallback(kovo, on_error);
  kovoRegisterCancellationCallback(kovo, on_cancelled);
  kovoRegisterStatusLineCallback(kovo, on_status);
  kovoRegisterPausedCallback(kovo, on_paused);

  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  kovo_error error = kovoDownload(kovo, argv[1], argv[2], KOVO_CHUNKING_ALWAYS, 0, NULL, &token);
  if (error == KOVO_ERROR_NONE) {
    int paused = 0;
    struct pollfd keys = {.fd = STDIN_FILENO, .events = POLLIN};
    while (!over) {
      char key = 0;
      if (poll(&keys, 1, 100) == 0) continue;
      if (read(STDIN_FILENO, &key, 1) != 1) break;
      if (paused) {
        /* A transfer keeps its token when it is resumed. */
        kovo_async_token same = NOTHING_ASYNC_TOKEN;
        error = kovoResume(kovo, token, NULL, &same);
        printf("resume: %s\n", kovoErrorString(error));
      } else {
        error = kovoPause(kovo, token);
        printf("pause: %s\n", kovoErrorString(error));
      }
      fflush(stdout);
      if (error == KOVO_ERROR_NONE) paused = !paused;
    }
    /* No more keys: a paused transfer would wait for ever. */
    kovo_async_token same = NOTHING_ASYNC_TOKEN;
    if (paused) kovoResume(kovo, token, NULL, &same);
    sem_wait(&finished);
  } else {
    fprintf(stderr, "refused: %s\n", kovoErrorString(error));
  }
  kovoDestroy(&kovo);
  return result;
}
