#pragma once

#include <kovo/kovo.h>
#include <kovo/kovo_ext.h>

#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "support/transfer_record.h"

namespace kovo::test {

/** The documented defaults of kovo_config, written out. */
kovo_config defaultConfig();

struct TestEngineOptions {
  kovo_config config = defaultConfig();
  /* Figure the pool is sized from: one thread less serves transfers. */
  uint32_t hardware = 9;
  /* Data directory to use, to open the databases another engine left; empty: a fresh one. */
  std::string dataHome;
};

/**
 * An engine behind the C interface with every callback registered and recorded. Engines that are
 * to live at the same time are created before any of them starts a transfer: the data directory
 * is handed over in the environment.
 *
 * On teardown each accepted transfer must have had exactly one final callback and nothing after
 * it, except one that was left paused.
 */
class TestEngine {
 public:
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kPatience{60000};

  explicit TestEngine(const TestEngineOptions& options = {});
  ~TestEngine();
  TestEngine(const TestEngine&) = delete;
  TestEngine& operator=(const TestEngine&) = delete;

  kovo_instance instance() const { return _instance; }
  const std::string& dataHome() const { return _dataHome; }
  /** A path in a directory of this engine's own. */
  std::string file(std::string_view name) const { return _folder.file(name); }

  /* Each returns a record that lives as long as this object. */
  TransferRecord& download(const std::string& url, const std::string& path,
                           TransferHooks hooks = {},
                           kovo_chunking_mode mode = KOVO_CHUNKING_DEFAULT, uint32_t priority = 0);
  TransferRecord& downloadToMemory(const std::string& url, TransferHooks hooks = {},
                                   kovo_chunking_mode mode = KOVO_CHUNKING_DEFAULT,
                                   uint32_t priority = 0);
  TransferRecord& downloadRange(const std::string& url, uint64_t start, uint64_t length,
                                TransferHooks hooks = {},
                                kovo_chunking_mode mode = KOVO_CHUNKING_DEFAULT);
  TransferRecord& upload(kovo_http_verb verb, const std::string& url, const std::string& path,
                         TransferHooks hooks = {}, kovo_chunking_mode mode = KOVO_CHUNKING_DEFAULT);
  TransferRecord& uploadFromMemory(kovo_http_verb verb, const std::string& url,
                                   TransferHooks hooks = {});
  TransferRecord& sendRequest(kovo_http_verb verb, const std::string& url, TransferHooks hooks = {},
                              uint32_t acceptGzip = 0, uint32_t priority = 0);

  /** Waits for the final callback of a transfer; false (and a test failure) when none comes. */
  bool wait(const TransferRecord& record, Milliseconds timeout = kPatience) const;
  /** Likewise until the paused callback has come so many times. */
  bool waitForPause(const TransferRecord& record, uint32_t times = 1,
                    Milliseconds timeout = kPatience) const;

  kovo_error cancel(const TransferRecord& record) {
    return kovoCancel(_instance, record.startedToken());
  }
  kovo_error pause(const TransferRecord& record) {
    return kovoPause(_instance, record.startedToken());
  }
  /** Resumes, and checks that the token stays the same when that succeeds. */
  kovo_error resume(const TransferRecord& record);

  /** Destroys the engine now; returns how long that took. */
  Milliseconds destroy();

  struct MonitorRecord {
    uint32_t type = 0;
    std::string data;
  };
  std::vector<MonitorRecord> monitorRecords() const;

 private:
  struct Callbacks;

  template <class Start>
  TransferRecord& start(TransferHooks hooks, Start call);
  void checkFinals() const;

  TempDir _folder;
  std::string _dataHome;
  kovo_instance _instance = nullptr;

  mutable std::mutex _mutex;
  std::list<TransferRecord> _records; /* guarded by _mutex */
};

}  // namespace kovo::test
