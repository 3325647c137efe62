#pragma once

#include <atomic>
#include <memory>
#include <set>
#include <string>

#include "transfers/chunk_buffer.h"
#include "transfers/chunked_transfer.h"

namespace kovo {

// Downloads one resource as byte ranges fetched in parallel, into a file or to the client's
// response-body callback. A file download whose path ends in "._kstmp" resumes: after an
// interruption it fetches only what is not yet in the file, if the server still names the
// same entity tag.
//
// A completed download is the resource, whole, one version of it: every range is accounted for by
// the bytes its response delivered, missing rests are asked for, and validators and totals of all
// responses must agree.
class ChunkedDownload : public ChunkedTransfer {
 public:
  // To memory.
  ChunkedDownload(KovoEngine& engine, TransferContext* context, std::string url,
                  kovo_chunking_mode mode, std::uint32_t priority,
                  std::shared_ptr<ClientCallbackHandler> callbackHandler);
  // To a file.
  ChunkedDownload(KovoEngine& engine, TransferContext* context, std::string url,
                  std::string outputPath, kovo_chunking_mode mode, std::uint32_t priority,
                  std::shared_ptr<ClientCallbackHandler> callbackHandler);

  std::uint32_t getAvailableWorkCount() const override;
  bool isChunkingAllowed() const override;
  bool shouldRetryChunk(std::int32_t chunkNumber, std::shared_ptr<KovoError> error,
                        std::shared_ptr<KovoHTTPError> httpError) override;
  kovo_chunk_type getChunkType() const override;
  void writeData(std::uint64_t offset, const std::uint8_t* data, std::size_t size,
                 const std::shared_ptr<PlatformFileOStream>& stream) override;
  void writeBlock(std::uint64_t offset, ByteBlock& block, std::size_t size,
                  const std::shared_ptr<PlatformFileOStream>& stream) override;
  void rangeCompleted(const KovoRange& range,
                      const std::shared_ptr<PlatformFileOStream>& stream) override;
  void rangeDiscarded(const KovoRange& range) override;
  bool isCancellable() const override;
  void processResponseHeader(Request& request, const Header& header) override;
  // The client wants this range only.
  virtual void setByteRange(const KovoRange& range);

 protected:
  void setIntermediateStatus(std::uint32_t status) override;
  std::unique_ptr<Work> createWork() override;
  std::uint32_t getTransferHttpStatus() const override;
  State transferInitFinished(Work& work) override;
  State firstChunkFinished() override;
  State chunkFinished(Work* work) override;
  State lastChunkFinished() override;
  std::uint64_t getChunkSize() const override;
  void verifyComplete() override;
  void settle(Outcome outcome) override;
  void tidyUp(Outcome outcome) override;
  void settlePause() override;

 private:
  bool writesToFile() const { return !getFilePath().empty(); }
  std::uint64_t effectiveChunkSize() const;
  bool isChunkingEnabled(bool unknownLengthCounts) const;
  bool isResumabilityAllowed() const;

  std::unique_ptr<Work> createWorkForInit();
  std::unique_ptr<Work> createWorkForNextChunk();
  // Null for a range whose bytes are in the file already.
  std::unique_ptr<Work> createRangedGet(const KovoNumberedRange& range);
  std::unique_ptr<Request> createGet(const KovoNumberedRange& range);
  bool recreateOutputFile();
  void forgetRecordedChunks();
  bool takesPartInResume() const;
  bool keepsPartialFile(Outcome outcome) const;
  void deleteRows(Outcome outcome);
  void syncPartialFile();

  void processEntityTag(const std::string& value);
  void processLastModified(const std::string& value);
  void processContentRange(const std::string& value);
  void loadRecordedChunks(const std::string& entityTag);
  bool recordedChunksAreUsable();
  void readGeometry();
  std::string getResourceName() const;
  void setTotal(std::uint64_t total);
  void failChanged(const std::string& what);

  State initialRangeFinished(const Request& request);
  // What the answer to a resume's HEAD makes of the partial file.
  enum class PartialFile {
    NotJudged,
    Usable,    // go on behind the first chunk
    Replaced,  // by an empty one: every chunk is due
    Emptied,   // the size is not known: begin with a GET
    Lost       // it could not be replaced; the error is recorded
  };
  PartialFile judgePartialFile();
  State headFinished();
  State initialFailed(const Request& request, std::uint32_t status);
  // What a finished range request has left undone is put back; false: bytes are missing for good.
  bool accountFor(const Request& request);
  bool accountForOpenEnd(const Request& request, const KovoNumberedRange& range);
  void failMissing(const Request& request);
  bool isWholeResourceUnderWay() const;
  // Whether bytes that were written are gone from the file; records the error.
  bool isOutputCutShort();
  void recordChunk(std::uint64_t rangeStart, std::uint64_t rangeEnd);

  ChunkBuffer _buffer;
  KovoRange _requestedRange;  // as the client gave it; constant after submission

  std::atomic<bool> _isFilePartiallyDownloaded{false};
  std::atomic<bool> _firstBytesLoaded{false};
  std::atomic<bool> _resuming{false};  // this download continues a partial file
  std::atomic<bool> _geometryRecorded{false};
  // Chunk size of the run that recorded the chunks; 0: the setting.
  std::atomic<std::uint64_t> _recordedChunkSize{0};
  // Touched by the initial request, which runs alone, and afterwards under _mainLock.
  std::set<std::uint64_t> _chunksDownloadedFirstByte;
  // Size of the whole resource, once known; 0 before that.
  std::atomic<std::uint64_t> _totalSize{0};
  std::atomic<bool> _totalKnown{false};
  // The output is a regular file that this transfer has made or goes on with. Only such a one is
  // measured, and deleted after a failure.
  std::atomic<bool> _ownsOutput{false};
  // End of the highest byte in the output file; one thread at a time writes.
  std::atomic<std::uint64_t> _writtenEnd{0};

  // Of the initial request, which runs alone, and of the state change after it.
  PartialFile _partialFile = PartialFile::NotJudged;
  bool _wholeResourceDelivered = false;  // under _mainLock
  // The server has stopped honouring ranges while the first chunk runs: nothing more goes out until
  // that one has told whether it brings everything.
  std::atomic<bool> _awaitingWholeResource{false};
  std::atomic<std::uint32_t> _httpStatus{0};
};

}  // namespace kovo
