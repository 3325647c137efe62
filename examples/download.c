/*
 * Downloads a URL into a file and shows the progress.
 *
 *   cc download.c $(pkg-config --cflags --libs kovo) -o download
 *   ./download https://example.org/image.iso image.iso
 */
#include <inttypes.h>
#include <kovo/kovo.h>
#include <semaphore.h>
#include <stdio.h>

static sem_t finished;
static int result = 1;

static void on_complete(kovo_instance kovo, void* context) {
  printf("\ncomplete\n");
  result = 0;
  sem_post(&finished);
}

static void on_error(kovo_instance kovo, uint32_t code, const char* message, void* context) {
  fprintf(stderr, "\nfailed (%" PRIu32 "): %s\n", code, message);
  sem_post(&finished);
}

static void on_cancelled(kovo_instance kovo, void* context) {
  sem_post(&finished);
}

static void on_status(kovo_instance kovo, const char* version, uint32_t status, const char* reason,
                      void* context) {
  printf("%" PRIu32 " %s\n", status, reason);
}

static void on_progress(kovo_instance kovo, uint64_t done, uint64_t total, void* context) {
  printf("\r%" PRIu64 " of %" PRIu64 " bytes", done, total);
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
  /* These four are needed by every transfer. */
  kovoRegisterCompletionCallback(kovo, on_complete);
  kovoRegisterErrorCallback(kovo, on_error);
  kovoRegisterCancellationCallback(kovo, on_cancelled);
  kovoRegisterStatusLineCallback(kovo, on_status);
  kovoRegisterProgressCallback(kovo, on_progress);

  /* Returns at once; the callbacks run on the library's threads. */
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  kovo_error error = kovoDownload(kovo, argv[1], argv[2], KOVO_CHUNKING_DEFAULT, 0, NULL, &token);
  if (error == KOVO_ERROR_NONE) {
    sem_wait(&finished);
  } else {
    fprintf(stderr, "refused: %s\n", kovoErrorString(error));
  }
  kovoDestroy(&kovo);
  return result;
}
