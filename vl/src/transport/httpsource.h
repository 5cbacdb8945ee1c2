#pragma once

#include "vl/src/transport/httpclient.h"
#include "vl/src/transport/source.h"

namespace vl {

/// A repository behind an http or https address.
class HttpSource final : public Source
{
public:
    /// The address has been checked.
    HttpSource(const Config& config, const SourceOptions& options);

    Expected<std::string> fetchDocument(const DocumentRequest& request) override;
    Expected<void> fetchRange(const std::string& path, std::uint64_t fileSize, ByteRange range,
                              Operation& operation, const Sink& sink,
                              const std::stop_token& stop) override;
    std::string describe() const override;

private:
    std::string addressOf(const std::string& path) const;
    /// Waits before new attempt number `attempt` (from 1). The failure is the pump's.
    Expected<void> pause(int attempt, const HttpFailure& failed,
                         const std::function<Expected<void>()>& pump) const;

    SourceOptions m_options;
    std::string m_address; ///< without a "/" at its end
    std::uint64_t m_maxBytesPerSecond = 0;
    HttpClient m_client;
};

} // namespace vl
