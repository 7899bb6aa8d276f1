// The reference server's request reader: any bytes, in pieces of any size. What it takes for a request must stand up to
// being read again whole, and its lines must be printable.
#include "tools/keldwick-server/request.h"

#include <algorithm>
#include <cstdlib>

#include "tools/keldwick-server/report_lines.h"

using namespace tools;

static std::string Line(const REQUEST& request) { return JsonLine({}, {.request = request, .bytes = {}, .when = {}}); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const size_t piece = data[0] == 0 ? size : data[0];  // the first byte chooses how the rest is cut
    const std::span<const uint8_t> stream(data + 1, size - 1);
    REQUEST_READER reader;
    REQUEST request, again;
    size_t done = 0, wanted = 0;
    std::string reason;
    for (size_t at = 0; at < stream.size(); at += piece) {
        reader.Append(stream.subspan(at, std::min(piece, stream.size() - at)));
        PARSED result;
        while ((result = reader.Next(request)) == PARSED::Whole) {
            std::vector<FIELD> fields;
            if (ParseRequest(stream.subspan(done), again, wanted, reason, &fields) != PARSED::Whole) std::abort();
            if (fields.size() < MaxFields && fields.back().at + fields.back().length != again.length) std::abort();
            if (again.length != request.length || Line(again) != Line(request)) std::abort();
            if (TextLine(request).find('\n') != std::string::npos) std::abort();
            if (!request.groups.empty() && request.groups.size() != request.groupsStated) std::abort();
            done += request.length;
        }
        if (result == PARSED::Malformed) {
            if (reader.Reason().empty()) std::abort();
            return 0;
        }
    }
    if (reader.Held() != stream.size() - done) std::abort();
    return 0;
}
