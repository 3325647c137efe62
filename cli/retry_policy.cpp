#include "retry_policy.h"

#include <algorithm>

#include "failure_class.h"

namespace kovo::cli {

namespace {

bool isPassing(const RequestFailure& failure, bool serverSeen) {
  switch (classify(failure.code, failure.httpStatus, failure.message)) {
    case ExitCode::kHttp:
      return failure.httpStatus == 408 || failure.httpStatus == 429 ||
             (failure.httpStatus >= 500 && failure.httpStatus != 501 && failure.httpStatus != 505);
    case ExitCode::kTimeout:
      return true;
    case ExitCode::kNetwork:
      // A name that does not resolve, or a port nobody listens on, is more often a mistyped URL
      // than a passing fault, unless this server has answered before. So is a first failure
      // without words.
      return serverSeen || (!failure.message.empty() && !isUnreachable(failure.message));
    default:
      return false;
  }
}

}  // namespace

RetryPolicy::RetryPolicy(std::uint32_t retriesPerRequest)
    : _retries(retriesPerRequest), _random(std::random_device{}()) {}

std::optional<std::chrono::milliseconds> RetryPolicy::next(const RequestFailure& failure,
                                                           bool serverSeen,
                                                           std::chrono::seconds retryAfter) {
  if (!isPassing(failure, serverSeen)) return std::nullopt;
  std::uint32_t& attempts = _attempts[{failure.type, failure.number}];
  if (attempts >= _retries) return std::nullopt;
  // Half a second, doubled each time up to half a minute; a tenth of it for a connection that broke
  // though the server is there, which says nothing of its load. The random half keeps the requests
  // of many clients that failed together from coming back together.
  const double first = serverSeen && failure.httpStatus == 0 ? 50.0 : 500.0;
  const double longest =
      std::min(first * static_cast<double>(1U << std::min(attempts, 10U)), 30000.0);
  ++attempts;
  std::uniform_real_distribution<double> jitter(0.5, 1.0);
  const std::chrono::milliseconds pause(static_cast<long long>(longest * jitter(_random)));
  constexpr std::chrono::seconds kLongestWish{120};
  return std::max<std::chrono::milliseconds>(pause, std::min(retryAfter, kLongestWish));
}

}  // namespace kovo::cli
