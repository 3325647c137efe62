/*
 * Sends a JSON document with POST and prints the answer.
 *
 *   cc send_json.c $(pkg-config --cflags --libs kovo) -o send_json
 *   ./send_json https://example.org/api/things '{"name": "thing"}'
 */
#include <inttypes.h>
#include <kovo/kovo.h>
#include <semaphore.h>
#include <stdio.h>
#include <string.h>

struct request {
  sem_t finished;
  const char* json;
  uint32_t status;
};

static void on_complete(kovo_instance kovo, void* context) {
  struct request* request = context;
  sem_post(&request->finished);
}

static void on_error(kovo_instance kovo, uint32_t code, const char* message, void* context) {
  struct request* request = context;
  fprintf(stderr, "failed (%" PRIu32 "): %s\n", code, message);
  request->status = 0;
  sem_post(&request->finished);
}

static void on_cancelled(kovo_instance kovo, void* context) {
  struct request* request = context;
  sem_post(&request->finished);
}

static void on_status(kovo_instance kovo, const char* version, uint32_t status, const char* reason,
                      void* context) {
  struct request* request = context;
  request->status = status;
}

/* The body of the answer. One request has one answer, so its pieces come in order. */
static void on_answer(kovo_instance kovo, uint64_t offset, const uint8_t* data, uint64_t size,
                      void* context) {
  fwrite(data, 1, size, stdout);
}

/* The request: its headers, the length of its body, and the body piece by piece. */
static void on_headers(kovo_instance kovo, kovo_header* headers, uint32_t capacity, uint32_t* count,
                       void* context) {
  strcpy(headers[0].name, "Content-Type");
  strcpy(headers[0].value, "application/json");
  strcpy(headers[1].name, "Accept");
  strcpy(headers[1].value, "application/json");
  *count = 2;
}

static void on_length(kovo_instance kovo, uint64_t* length, void* context) {
  struct request* request = context;
  *length = strlen(request->json);
}

static void on_body(kovo_instance kovo, uint64_t offset, uint8_t* buffer, uint64_t* bytes_read,
                    uint64_t max_length, void* context) {
  struct request* request = context;
  uint64_t left = strlen(request->json) - offset;
  *bytes_read = left < max_length ? left : max_length;
  memcpy(buffer, request->json + offset, *bytes_read);
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s URL JSON\n", argv[0]);
    return 2;
  }
  struct request request = {.json = argv[2]};
  sem_init(&request.finished, 0, 0);

  kovo_instance kovo = kovoCreate(NULL);
  if (kovo == NULL) return 1;
  kovoRegisterCompletionCallback(kovo, on_complete);
  kovoRegisterErrorCallback(kovo, on_error);
  kovoRegisterCancellationCallback(kovo, on_cancelled);
  kovoRegisterStatusLineCallback(kovo, on_status);
  kovoRegisterResponseBodyCallback(kovo, on_answer);
  kovoRegisterAddHeaderCallback(kovo, on_headers);
  kovoRegisterRequestBodyCallback(kovo, on_body, on_length);

  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  kovo_error error = kovoSendRequest(kovo, KOVO_HTTP_POST, argv[1], 0, 0, &request, &token);
  if (error == KOVO_ERROR_NONE) {
    sem_wait(&request.finished);
  } else {
    fprintf(stderr, "refused: %s\n", kovoErrorString(error));
  }
  kovoDestroy(&kovo);

  fflush(stdout);
  fprintf(stderr, "status %" PRIu32 "\n", request.status);
  return request.status >= 200 && request.status < 300 ? 0 : 1;
}
