/*
 * Downloads a URL into memory and writes it to the standard output.
 *
 *   cc download_to_memory.c $(pkg-config --cflags --libs kovo) -o download_to_memory
 *   ./download_to_memory https://example.org/page.html
 */
#include <inttypes.h>
#include <kovo/kovo.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* One transfer: what its callbacks gather. Its address is the transfer's context. */
struct download {
  pthread_mutex_t lock;
  pthread_cond_t changed;
  int finished;
  int failed;
  uint8_t* bytes;
  uint64_t size;
};

static void finish(struct download* download, int failed) {
  pthread_mutex_lock(&download->lock);
  download->finished = 1;
  download->failed |= failed;
  pthread_cond_signal(&download->changed);
  pthread_mutex_unlock(&download->lock);
}

static void on_complete(kovo_instance kovo, void* context) {
  finish(context, 0);
}

static void on_error(kovo_instance kovo, uint32_t code, const char* message, void* context) {
  fprintf(stderr, "failed (%" PRIu32 "): %s\n", code, message);
  finish(context, 1);
}

static void on_cancelled(kovo_instance kovo, void* context) {
  finish(context, 1);
}

/* A server's refusal has a status of 400 or more; its text arrives as the body. */
static void on_status(kovo_instance kovo, const char* version, uint32_t status, const char* reason,
                      void* context) {
  struct download* download = context;
  if (status < 400) return;
  fprintf(stderr, "%" PRIu32 " %s\n", status, reason);
  pthread_mutex_lock(&download->lock);
  download->failed = 1;
  pthread_mutex_unlock(&download->lock);
}

/* Pieces come from several connections, at the same time and in any order. */
static void on_body(kovo_instance kovo, uint64_t offset, const uint8_t* data, uint64_t size,
                    void* context) {
  struct download* download = context;
  pthread_mutex_lock(&download->lock);
  if (offset + size > download->size) {
    uint8_t* larger = realloc(download->bytes, offset + size);
    if (larger == NULL) {
      download->failed = 1;
      pthread_mutex_unlock(&download->lock);
      return;
    }
    download->bytes = larger;
    download->size = offset + size;
  }
  memcpy(download->bytes + offset, data, size);
  pthread_mutex_unlock(&download->lock);
}

int main(int argc, char** argv) {
  struct download download = {.lock = PTHREAD_MUTEX_INITIALIZER,
                              .changed = PTHREAD_COND_INITIALIZER};
  if (argc != 2) {
    fprintf(stderr, "usage: %s URL\n", argv[0]);
    return 2;
  }

  kovo_instance kovo = kovoCreate(NULL);
  if (kovo == NULL) return 1;
  kovoRegisterCompletionCallback(kovo, on_complete);
  kovoRegisterErrorCallback(kovo, on_error);
  kovoRegisterCancellationCallback(kovo, on_cancelled);
  kovoRegisterStatusLineCallback(kovo, on_status);
  kovoRegisterResponseBodyCallback(kovo, on_body);

  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  kovo_error error =
      kovoDownloadToMemory(kovo, argv[1], KOVO_CHUNKING_DEFAULT, 0, &download, &token);
  if (error == KOVO_ERROR_NONE) {
    pthread_mutex_lock(&download.lock);
    while (!download.finished) pthread_cond_wait(&download.changed, &download.lock);
    pthread_mutex_unlock(&download.lock);
  } else {
    fprintf(stderr, "refused: %s\n", kovoErrorString(error));
    download.failed = 1;
  }
  kovoDestroy(&kovo);

  if (!download.failed) fwrite(download.bytes, 1, download.size, stdout);
  free(download.bytes);
  return download.failed;
}
