#include "tests/fuzz/fuzz.h"
#include "tools/report-collector/reportparser.h"

#include <cstdlib>

namespace {

class CountingSink final : public ReportSink
{
public:
    bool beginReport(const ReportTexts& /*texts*/) override { return true; }
    bool beginAttachment(const QByteArray& /*name*/, qint64 size) override
    {
        m_left = size;
        return true;
    }
    bool attachmentBytes(QByteArrayView bytes) override
    {
        m_left -= bytes.size();
        return true;
    }
    bool endAttachment() override
    {
        if (m_left != 0)
            std::abort();
        return true;
    }
    bool endReport() override { return true; }

private:
    qint64 m_left = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArrayView bytes(data, static_cast<qsizetype>(size));
    CountingSink whole;
    ReportParser atOnce(whole);
    atOnce.feed(bytes);
    CountingSink pieces;
    ReportParser byteByByte(pieces);
    for (qsizetype i = 0; i < bytes.size(); ++i)
        byteByByte.feed(bytes.sliced(i, 1));
    if (atOnce.status() != byteByByte.status())
        std::abort();
    return 0;
}
