#include "tools/keldwick-server/request.h"

#include <gtest/gtest.h>

#include "request_bytes.h"
#include "tools/keldwick-server/report_lines.h"

namespace tools {
namespace {

struct READ {
    PARSED result;
    REQUEST request;
    std::string reason;
};

READ ReadOne(const BYTES& bytes) {
    REQUEST_READER reader;
    reader.Append(bytes);
    READ read{};
    read.result = reader.Next(read.request);
    read.reason = reader.Reason();
    std::vector<FIELD> fields;
    size_t wanted = 0, end = 0;
    const bool whole = ParseRequest(bytes, read.request, wanted, read.reason, &fields) == PARSED::Whole;
    for (const FIELD& field : fields) {
        EXPECT_EQ(end, field.at) << field.name;
        end += field.length;
    }
    EXPECT_TRUE(whole ? end == bytes.size() : end <= bytes.size()) << "every byte belongs to one field";
    return read;
}

TEST(RequestReader, FindsEveryField) {
    READ read = ReadOne(FullRequest().Get());
    ASSERT_EQ(PARSED::Whole, read.result) << read.reason;
    EXPECT_EQ(R"({"kind":"logon","id":2,"user":"CORP\\jdoe","user_dn":"CN=J Doe","user_ou":"OU=People",)"
              R"("computer":"CORP\\WS1","computer_dn":"CN=WS1","computer_ou":"OU=Desks","address":"10.0.0.5",)"
              R"("groups":[{"domain":"CORP\\Staff","dn":"CN=Staff"},{"domain":"CORP\\All","dn":"CN=All"}],)"
              R"("os":{"code":12,"major":10,"minor":0},"length":)" +
                  std::to_string(FullRequest().Get().size()) +
                  R"(,"time":"2026-11-16T08:00:12.045Z","from":{"address":"fe80::1","port":4711,"connection":7,)"
                  R"("transport":"tls","connected":"1970-01-01T00:00:01.000Z"},"status":5})",
              JsonLine({7, "fe80::1", 4711, true, TIME(std::chrono::seconds(1))},
                       {read.request, {}, TIME(std::chrono::milliseconds(1'794'816'012'045)), 5}));

    REQUEST_BYTES bare;
    EXPECT_EQ(34u, bare.Get().size());
    bare.address = BYTES(16, 0);
    bare.address[15] = 1;
    bare.kind = 0x21;
    read = ReadOne(bare.Get());
    ASSERT_EQ(PARSED::Whole, read.result) << read.reason;
    EXPECT_EQ(46u, read.request.length);
    EXPECT_EQ("::1", read.request.address);
    EXPECT_EQ(REQUEST::KIND::Logoff, read.request.kind);
    bare.address.clear();
    bare.groupCount = 3;
    read = ReadOne(bare.Get());
    ASSERT_EQ(PARSED::Whole, read.result) << read.reason;
    EXPECT_EQ("", read.request.address);
    EXPECT_TRUE(read.request.groupsStated == 3 && read.request.groups.empty()) << "counted but not sent";
    EXPECT_EQ(bare.Get().size(), read.request.length);
}

TEST(RequestReader, LengthsBeyond65535AreFoundByTheFields) {
    for (const size_t units : {16'000u, 32'767u - 16u, 40'000u, 65'535u}) {
        SCOPED_TRACE(units);
        REQUEST_BYTES large;
        large.mask = 0x0FC6;
        large.texts = {std::u16string(units, u'x'), u"", u""};
        large.groupCount = 1;
        large.groups = {{std::u16string(units, u'y'), u"CN=y"}};
        const BYTES bytes = large.Get();
        const READ read = ReadOne(bytes);
        ASSERT_EQ(PARSED::Whole, read.result) << read.reason;
        EXPECT_EQ(bytes.size(), read.request.length);
        EXPECT_EQ(units, read.request.groups.at(0).domain.size());
        EXPECT_EQ(PARSED::Incomplete, ReadOne(BYTES(bytes.begin(), bytes.end() - 1)).result);
    }
}

TEST(RequestReader, RefusesEveryWrongField) {
    const std::tuple<const char*, size_t, uint8_t> cases[] = {
        {"length too small", 1, 0},     {"length one too large", 1, 35}, {"format", 3, 2},
        {"message code", 5, 0x11},      {"half a user block", 13, 0x46}, {"unknown mask bit", 10, 1},
        {"missing mask bit", 13, 0x04}, {"first constant", 14, 3},       {"last constant", 18, 0},
        {"address version", 19, 5},     {"version tag", 24, 0x12},       {"report kind", 33, 0x22}};
    for (const auto& [name, at, value] : cases) {
        SCOPED_TRACE(name);
        BYTES bytes = REQUEST_BYTES().Get();
        bytes[at] = value;
        const READ read = ReadOne(bytes);
        EXPECT_EQ(PARSED::Malformed, read.result);
        EXPECT_FALSE(read.reason.empty());
    }
    BYTES separator = FullRequest().Get();
    for (size_t i = 0; i + 2 < separator.size(); ++i)
        if (separator[i] == 0 && separator[i + 1] == 2 && separator[i + 2] == 0 && i > 40) separator[i + 2] = 7;
    EXPECT_EQ(PARSED::Malformed, ReadOne(separator).result);
}

TEST(RequestReader, ARequestWithoutEndIsCutOffBeforeItFillsTheMemory) {
    REQUEST_BYTES endless;
    endless.groupCount = 0xFFFF;
    BYTES start = endless.Get();
    start.pop_back();
    REQUEST_READER reader;
    reader.Append(start);
    BYTES group;
    AddText(group, std::u16string(65'535, u'x'));
    AddText(group, u"");
    REQUEST request;
    PARSED result = PARSED::Incomplete;
    size_t most = 0;
    for (int i = 0; i < 200 && result == PARSED::Incomplete; ++i) {
        reader.Append(group);
        result = reader.Next(request);
        most = std::max(most, reader.Held());
    }
    EXPECT_EQ(PARSED::Malformed, result);
    EXPECT_LE(most, MaxRequestBytes + group.size());
}

TEST(ReportLine, NamesCanNeitherBreakTheLineNorTheJson) {
    REQUEST request;
    request.address = "10.0.0.5";
    request.length = 99;
    request.user = u"a\"\n\r\x1B[2J\u0085\u2028\u202E";
    request.user += u'\xD800';
    request.user += u"\U0001F600\u00E4\u00AD\u3164\U000E0041";
    EXPECT_EQ(
        "logon     #0  10.0.0.5  user \"a\\u0022\\u000a\\u000d\\u001b[2J\\u0085\\u2028\\u202e\xEF\xBF\xBD"
        "\xF0\x9F\x98\x80\xC3\xA4\\u00ad\\u3164\\udb40\\udc41\"  99 bytes",
        TextLine(request));
    EXPECT_NE(std::string::npos, JsonLine({}, {request, {}, {}})
                                     .find("\"user\":\"a\\\"\\n\\r\\u001b[2J\\u0085\\u2028\\u202e\xEF\xBF\xBD"
                                           "\xF0\x9F\x98\x80\xC3\xA4\\u00ad\\u3164\\udb40\\udc41\""));
}

}  // namespace
}  // namespace tools
