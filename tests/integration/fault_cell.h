#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "integration/fault_matrix.h"
#include "integration/local_faults.h"
#include "integration/storage_mocks.h"
#include "support/engine_fixture.h"
#include "support/fault_origin.h"
#include "support/resource.h"

namespace kovo::test {

/** Bytes per chunk that the engines of the matrix are to be made with. */
constexpr uint64_t kMatrixChunk = 16 * 1024;

/**
 * One transfer of the matrix with a server and files of its own: healthy, or with the fault of a
 * cell. The engine it runs on must not outlive it while the transfer runs.
 */
class FaultCell {
 public:
  /** folder is for this transfer alone. Without a cell: a healthy transfer. */
  FaultCell(Kind kind, std::string folder, std::optional<Cell> cell = std::nullopt);
  ~FaultCell();

  /** Why the fault cannot be made here; empty when it can. */
  std::string unavailable() const;
  /** The data directory that the engine is to have. */
  std::string dataHome() const { return _folder + "/data"; }

  /** Starts the transfer; faults that are there beforehand come first. */
  void start(TestEngine& engine);
  /** Waits for the end, and expects the documented one and no wrong byte. */
  void expectEnding(TestEngine& engine);
  /** How it ended, for the report: "ok", or the code. */
  const std::string& outcome() const { return _outcome; }

 private:
  class NoServer;

  bool isVictim(const OriginRequest& request) const;
  bool isFirst(const OriginRequest& request) const;
  /** Before a request is answered; true when that is done. */
  bool strike(const OriginRequest& request, Responder& to);
  bool isStruck(const OriginRequest& request);
  bool strikeConnection(Responder& to);
  void strikeBetweenChunks(Responder& to);
  void strikeWithPart(const OriginRequest& request, Responder& to) const;
  Refusal refusal(const OriginRequest& request) const;
  void disturb(Responder& to) const;
  void spoil();
  std::string url() const;
  void expectBytes(const TransferEvents& events, bool completed) const;

  const Kind _kind;
  const std::string _folder;
  const std::optional<Cell> _cell;
  const Resource _resource;
  const std::string _files;
  const std::string _file; /* output or input, in _files */
  std::atomic<int> _strikesLeft;
  std::string _outcome;
  LocalFaults _local;

  TransferRecord* _record = nullptr;
  std::unique_ptr<NoServer> _noServer;
  std::unique_ptr<FaultOrigin> _origin;
  std::unique_ptr<StorageMock> _mock;
};

}  // namespace kovo::test
