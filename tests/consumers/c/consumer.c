/* consumer URL FILE: one download, as somebody else's program would do it. */
#include <kovo/kovo.h>
#include <kovo/kovo_ext.h>
#include <semaphore.h>
#include <stdio.h>

static sem_t finished;
static int result = 1;

static void completed(kovo_instance kovo, void* context) {
  (void)kovo;
  (void)context;
  result = 0;
  sem_post(&finished);
}

static void failed(kovo_instance kovo, uint32_t code, const char* message, void* context) {
  (void)kovo;
  (void)context;
  fprintf(stderr, "failed (%u): %s\n", (unsigned)code, message);
  sem_post(&finished);
}

static void cancelled(kovo_instance kovo, void* context) {
  (void)kovo;
  (void)context;
  sem_post(&finished);
}

static void answered(kovo_instance kovo, const char* version, uint32_t status, const char* reason,
                     void* context) {
  (void)kovo;
  (void)context;
  printf("%s %u %s\n", version, (unsigned)status, reason);
}

int main(int argc, char** argv) {
  kovo_instance kovo = NULL;
  kovo_async_token token = NOTHING_ASYNC_TOKEN;
  if (argc != 3) return 2;
  sem_init(&finished, 0, 0);
  kovoSetHardwareConcurrency(5);
  kovo = kovoCreate(NULL);
  if (kovo == NULL) return 1;
  kovoRegisterCompletionCallback(kovo, completed);
  kovoRegisterErrorCallback(kovo, failed);
  kovoRegisterCancellationCallback(kovo, cancelled);
  kovoRegisterStatusLineCallback(kovo, answered);
  if (kovoDownload(kovo, argv[1], argv[2], KOVO_CHUNKING_DEFAULT, 0, NULL, &token) == 0) {
    sem_wait(&finished);
  }
  kovoDestroy(&kovo);
  return result;
}
