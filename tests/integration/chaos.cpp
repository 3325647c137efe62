#include "integration/chaos.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

namespace kovo::test {
namespace {

using std::chrono::milliseconds;

constexpr int kStatuses[] = {500, 502, 503, 504, 429, 408};
constexpr uint32_t kKinds = 10;

Moment momentOf(uint32_t number) {
  constexpr Moment kMoments[] = {Moment::kHead, Moment::kFirstByte, Moment::kMiddle,
                                 Moment::kLastByte};
  return kMoments[number % 4];
}

void respondWithRange(const OriginRequest& request, Responder& to, const Resource& resource,
                      uint64_t shift, uint64_t missing) {
  const uint64_t first = request.rangeStart() + shift;
  const auto asked = request.range();
  const uint64_t last =
      std::min(asked && asked->last ? *asked->last : resource.size() - 1, resource.size() - 1);
  if (last + 1 <= first + missing) return to.respond(503);
  const uint64_t length = last + 1 - first - missing;
  to.head(206, {{"ETag", "\"v1\""},
                {"Content-Range", "bytes " + std::to_string(first) + '-' +
                                      std::to_string(first + length - 1) + '/' +
                                      std::to_string(resource.size())},
                {"Content-Length", std::to_string(length)}});
  to.range(resource, first, length);
}

}  // namespace

uint32_t Chaos::draw(uint32_t below) {
  const std::lock_guard lock(_mutex);
  return std::uniform_int_distribution<uint32_t>(0, below - 1)(_random);
}

bool Chaos::disturb(Responder& to, uint32_t kind) {
  const Moment moment = momentOf(draw(4));
  switch (kind) {
    case 0:
      to.reset();
    case 1:
      to.close();
    case 2:
      to.during(moment, [&to] { to.reset(); });
      return false;
    case 3:
      to.during(moment, [&to] { to.close(); });
      return false;
    case 4:
      to.during(moment, [&to] { to.drip(40, 100); });
      return false;
    case 5:
      to.raw("\x01 no answer at all \xff\r\n");
      to.close();
    case 6:
      /* A stall costs a second; most of them are only hesitations. */
      if (draw(4) == 0) to.stall();
      to.stallFor(milliseconds(20));
      return false;
    default:
      to.readBody();
      to.respond(kStatuses[draw(std::size(kStatuses))], {{"ETag", "\"no\""}}, "not now");
      return true;
  }
}

OriginHandler Chaos::downloads(std::function<Resource(const OriginRequest&)> resourceOf) {
  return [this, of = std::move(resourceOf)](const OriginRequest& request, Responder& to) {
    const Resource resource = of(request);
    const uint32_t kind = draw(100) < _percent ? draw(kKinds + 2) : kKinds + 2;
    if (kind == kKinds) return respondWithRange(request, to, resource, 1, 0);
    if (kind == kKinds + 1) return respondWithRange(request, to, resource, 0, 100);
    if (kind < kKinds && disturb(to, kind)) return;
    serveResource(resource)(request, to);
  };
}

StorageMock::Intercept Chaos::uploads() {
  return [this](const OriginRequest&, Responder& to) -> std::optional<Refusal> {
    if (draw(100) >= _percent) return std::nullopt;
    const uint32_t kind = draw(kKinds);
    if (kind > 6) {
      to.readBody();
      return Refusal{kStatuses[draw(std::size(kStatuses))], {{"ETag", "\"no\""}}, "not now"};
    }
    if (disturb(to, kind)) throw ConnectionOver();
    return std::nullopt;
  };
}

}  // namespace kovo::test
