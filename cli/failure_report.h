#pragma once

#include <string>

#include "failure.h"
#include "transfer.h"

namespace kovo::cli {

// What to tell of a transfer that ended in another way than complete. url is the one the user gave;
// resumeHint says how to go on with what is stored.
Failure describeFailure(const Transfer::Status& status, const std::string& doing,
                        const std::string& url, int stopSignal, const std::string& resumeHint);

}  // namespace kovo::cli
