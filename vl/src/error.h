#pragma once

#include "vlupd/vlupd.h"

#include <tl/expected.hpp>

#include <string>
#include <utility>

namespace vl {

/// A failure: the code that the operation returns and the English words for the log. Callers add
/// context in front of the message on the way up.
struct Error
{
    vlupd::UPD_RESULT code = vlupd::UNKNOWN_ERROR;
    std::string message;
};

template <class T> using Expected = tl::expected<T, Error>;

inline tl::unexpected<Error> failure(vlupd::UPD_RESULT code, std::string message)
{
    return tl::unexpected<Error>(Error{code, std::move(message)});
}

/// `error` with "context: " in front of its message.
inline tl::unexpected<Error> failure(const std::string& context, Error error)
{
    error.message = context + ": " + error.message;
    return tl::unexpected<Error>(std::move(error));
}

} // namespace vl
