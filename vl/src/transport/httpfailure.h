#pragma once

#include "vl/src/transport/httpclient.h"

#include <curl/curl.h>

namespace vl {

/// Words and retry rule for a transfer that libcurl gave up with `code`. `words`: its own.
HttpFailure failureOfTransfer(CURL* easy, CURLcode code, const char* words,
                              const SourceOptions& options);

/// Words and retry rule for an answer with a status other than 200 and 206.
HttpFailure failureOfStatus(long status, curl_off_t retryAfterSeconds);

} // namespace vl
