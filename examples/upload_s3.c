/*
 * Uploads a file to S3 storage with its multipart protocol: the parts travel at the same time.
 * The URL is the object's. Authorisation is the caller's: a bucket that takes anonymous uploads,
 * or a header that a gateway wants.
 *
 *   cc upload_s3.c $(pkg-config --cflags --libs kovo) -o upload_s3
 *   ./upload_s3 backup.tar https://storage.example.org/bucket/backup.tar [AUTHORIZATION]
 */
#include <inttypes.h>
#include <kovo/kovo.h>
#include <semaphore.h>
#include <stdatomic.h>
#include <stdio.h>

static sem_t finished;
static int result = 1;
static const char* authorization = NULL;

static void on_complete(kovo_instance kovo, void* context) {
  printf("stored\n");
  result = 0;
  sem_post(&finished);
}

static void on_error(kovo_instance kovo, uint32_t code, const char* message, void* context) {
  fprintf(stderr, "failed (%" PRIu32 "): %s\n", code, message);
  sem_post(&finished);
}

static void on_cancelled(kovo_instance kovo, void* context) {
  sem_post(&finished);
}

static void on_status(kovo_instance kovo, const char* version, uint32_t status, const char* reason,
                      void* context) {
  if (status >= 400) fprintf(stderr, "%" PRIu32 " %s\n", status, reason);
}

static void on_server_type(kovo_instance kovo, uint32_t* type, void* context) {
  *type = KOVO_SERVER_TYPE_S3;
}

/* Asked for every request: the one that begins, one for each part, the one that ends. Signed
 * requests would be signed here, from url. */
static void on_chunk_headers(kovo_instance kovo, kovo_chunk_type type, const char* url,
                             uint32_t number, kovo_header* headers, uint32_t capacity,
                             uint32_t* count, void* context) {
  if (type == KOVO_CHUNK_TYPE_CHUNK) printf("part %" PRIu32 "\n", number + 1);
  if (authorization == NULL) return;
  snprintf(headers[0].name, sizeof headers[0].name, "Authorization");
  snprintf(headers[0].value, sizeof headers[0].value, "%s", authorization);
  *count = 1;
}

/* A part that failed for want of a connection is sent again. */
static int32_t on_chunk_failed(kovo_instance kovo, kovo_chunk_type type, uint32_t number,
                               uint32_t code, uint32_t http_status, const char* message,
                               void* context) {
  static atomic_int retries = 10; /* the callbacks of several parts may run at the same time */
  return http_status == 0 && retries-- > 0;
}

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    fprintf(stderr, "usage: %s FILE URL [AUTHORIZATION]\n", argv[0]);
    return 2;
  }
  if (argc == 4) authorization = argv[3];
  sem_init(&finished, 0, 0);

  kovo_instance kovo = kovoCreate(NULL);
  if (kovo == NULL) return 1;
  kovoRegisterCompletionCallback(kovo, on_complete);
  kovoRegisterErrorCallback(kovo, on_error);
  kovoRegisterCancellationCallback(kovo, on_cancelled);
  kovoRegisterStatusLineCallback(kovo, on_status);
  kovoRegisterSetServerTypeCallback(kovo, on_server_type);
  kovoRegisterAddChunkHeaderCallback(kovo, on_chunk_headers);
  kovoRegisterChunkErrorRetryCallback(kovo, on_chunk_failed);

  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  kovo_error error =
      kovoUpload(kovo, KOVO_HTTP_PUT, argv[2], argv[1], KOVO_CHUNKING_ALWAYS, 0, NULL, &token);
  if (error == KOVO_ERROR_NONE) {
    sem_wait(&finished);
  } else {
    fprintf(stderr, "refused: %s\n", kovoErrorString(error));
  }
  kovoDestroy(&kovo);
  return result;
}
