// Answers of a hostile directory server to whatever the layer asks: a bind, the server's own entry, the domains, and
// then a name, an object or an entry. The first byte says which of these; then come answers, in the order of questions:
//
//     'g'                            a good server's answer
//     'e' LENGTH DN\nNAME=VALUE\n... an entry, and the answer's end
//     'm' LENGTH TAG CONTENT         an LDAP message with the right number, and the answer's end
//     'r' LENGTH BYTES               bytes after which the connection is closed
//
// LENGTH is two bytes, the higher one first. After the last answer the server is a good one.
#include <adshlp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/ldap_server.h"
#include "tests/support/temporary_root.h"
#include "win32/directory/directory.h"
#include "win32/directory/directory_text.h"

using namespace win32;

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" const char* __lsan_default_suppressions();

// The LDAP library forgets a request, 4,276 bytes, when the message that bears its number cannot be read after the
// number: a program of nothing but a search and an unbind loses as much, and abandoning the search does not help.
extern "C" const char* __lsan_default_suppressions() { return "leak:liblber"; }

namespace {

using ANSWER = LDAP_SERVER::ANSWER;
using QUESTION = LDAP_SERVER::QUESTION;

std::string EntryOf(const QUESTION& question, std::string_view lines) {
    const auto take = [&](char end) {
        const std::string_view part = lines.substr(0, lines.find(end));
        lines.remove_prefix(std::min(part.size() + 1, lines.size()));
        return std::string(part);
    };
    const std::string dn = take('\n');
    LDAP_SERVER::ATTRIBUTES attributes;
    while (!lines.empty()) {
        std::string name = take('='), value = take('\n');
        if (attributes.empty() || attributes.back().first != name) attributes.push_back({std::move(name), {}});
        attributes.back().second.push_back(std::move(value));
    }
    return LDAP_SERVER::Entry(question, dn, attributes);
}

// Takes the next answer from the front of the input.
ANSWER TakeAnswer(const LDAP_SERVER& server, const QUESTION& question, std::string_view& input) {
    if (input.empty()) return server.GoodAnswer(question);
    const char kind = input[0];
    input.remove_prefix(1);
    if (kind == 'g') return server.GoodAnswer(question);
    const auto byte = [&](size_t i) { return i < input.size() ? static_cast<unsigned char>(input[i]) : 0u; };
    const size_t length = byte(0) << 8 | byte(1);
    input.remove_prefix(std::min<size_t>(2, input.size()));
    const std::string content(input.substr(0, length));
    input.remove_prefix(content.size());
    if (kind == 'e') return {EntryOf(question, content) + LDAP_SERVER::Done(question)};
    if (kind == 'm' && !content.empty())
        return {LDAP_SERVER::Message(question, static_cast<unsigned char>(content[0]), content.substr(1)) +
                LDAP_SERVER::Done(question)};
    return {content, true};
}

struct SERVER {
    TEMPORARY_ROOT root;
    LDAP_SERVER ldap{root.Path("ldap")};

    SERVER() {
        std::string uri = "ldapi://";
        for (const char c : root.Path("ldap")) uri += c == '/' ? std::string("%2F") : std::string(1, c);
        root.Write("registry.reg",
                   "Windows Registry Editor Version 5.00\r\n\r\n"
                   "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\Linux]\r\n\"DirectoryUri\"=\"" +
                       uri + "\"\r\n\"DirectoryCaFile\"=\"/none\"\r\n");
        ldap.entries["CN=Ann,DC=corp"] = {{"sAMAccountName", {"ann"}}, {"memberOf", {"CN=G,DC=corp"}}};
        ldap.entries["CN=G,DC=corp"] = {{"sAMAccountName", {"g"}}, {"memberOf", {"CN=Ann,DC=corp", "CN=H"}}};
    }
};

class TEXT_OWNER {
public:
    explicit TEXT_OWNER(const char16_t* text) : owned(SysAllocString(text)) {}
    explicit TEXT_OWNER(const std::u16string& text) : TEXT_OWNER(text.c_str()) {}
    ~TEXT_OWNER() { SysFreeString(owned); }
    TEXT_OWNER(const TEXT_OWNER&) = delete;
    TEXT_OWNER& operator=(const TEXT_OWNER&) = delete;
    BSTR Get() const { return owned; }

private:
    const BSTR owned;
};

void TranslateName(const std::u16string& user) {
    IADsNameTranslate* translator = nullptr;
    if (FAILED(MakeNameTranslator(IID_IADsNameTranslate, reinterpret_cast<void**>(&translator)))) std::abort();
    const TEXT_OWNER account(user), password(u"p"), name(u"CORP\\ann"), dn(u"CN=Ann,DC=corp"), sid(u"S-1-5-21-1-2-3-4"),
        simple(u"ann@corp.example");
    const std::pair<LONG, BSTR> names[] = {{ADS_NAME_TYPE_NT4, name.Get()},
                                           {ADS_NAME_TYPE_1779, dn.Get()},
                                           {ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME, sid.Get()},
                                           {ADS_NAME_TYPE_DOMAIN_SIMPLE, simple.Get()}};
    const HRESULT opened = translator->InitEx(ADS_NAME_INITTYPE_GC, nullptr, account.Get(), nullptr, password.Get());
    for (const auto& [from, text] : names)
        for (const auto& [to, unused] : names) {
            BSTR translated = nullptr;
            const bool good = SUCCEEDED(opened) && SUCCEEDED(translator->Set(from, text)) &&
                              SUCCEEDED(translator->Get(to, &translated));
            if (good != (translated != nullptr)) std::abort();
            SysFreeString(translated);
        }
    translator->Release();
}

void OpenObject(const std::u16string& user) {
    IADs* object = nullptr;
    const HRESULT opened = OpenDirectoryPath(u"LDAP://CN=Ann,DC=corp", user.c_str(), u"p", ADS_SECURE_AUTHENTICATION,
                                             IID_IADs, reinterpret_cast<void**>(&object));
    if (SUCCEEDED(opened) != (object != nullptr)) std::abort();
    if (object == nullptr) return;
    const std::pair<const char16_t*, std::vector<VARTYPE>> attributes[] = {
        {u"memberOf", {VT_BSTR, VT_ARRAY | VT_VARIANT}},
        {u"objectSid", {VT_ARRAY | VT_UI1}},
        {u"primaryGroupID", {VT_I4}}};
    for (const auto& [attribute, types] : attributes) {
        const TEXT_OWNER name(attribute);
        VARIANT value;
        VariantInit(&value);
        const bool read = SUCCEEDED(object->GetEx(name.Get(), &value));
        if (read != (std::find(types.begin(), types.end(), value.vt) != types.end())) std::abort();
        VariantClear(&value);
    }
    IADs* group = nullptr;  // fetched ahead by now, or asked for by itself
    if (SUCCEEDED(OpenDirectoryPath(u"LDAP://CN=G,DC=corp", user.c_str(), u"p", ADS_SECURE_AUTHENTICATION, IID_IADs,
                                    reinterpret_cast<void**>(&group))))
        group->Release();
    object->Release();
}

void ReadEntries(const std::u16string& user) {
    std::unique_ptr<DIRECTORY> directory;
    if (FAILED(OpenDirectory({"", std::string(user.begin(), user.end()), "p"}, directory))) return;
    std::vector<DIRECTORY_ENTRY> found;
    if (SUCCEEDED(directory->Find("DC=corp", "sAMAccountName", "ann", {"memberOf"}, found)) && found.size() > 64)
        std::abort();
    DIRECTORY_ENTRY entry;
    if (FAILED(directory->Read("CN=Ann,DC=corp", {"memberOf", "member"}, entry))) return;
    for (const auto& [name, values] : entry.attributes)
        if (const auto range = ParseRange(name); range && range->last)
            std::abort();  // a part that passes for the whole
}

}  // namespace

// What is wrong with an answer is said on standard error, which the fuzzer keeps for itself.
extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments) {
    static char quiet[] = "-close_fd_mask=2";
    static std::vector<char*> extended(*arguments, *arguments + *count);
    extended.push_back(quiet);
    extended.push_back(nullptr);
    *arguments = extended.data();
    ++*count;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static SERVER server;
    static unsigned long inputs = 0;
    if (size < 2) return 0;
    std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    server.ldap.Answer([&](const QUESTION& question) { return TakeAnswer(server.ldap, question, input); });
    // Each input's own identity: connections and failures are remembered by it.
    std::u16string user;
    for (const char digit : std::to_string(++inputs)) user += static_cast<char16_t>(digit);
    const auto use = {TranslateName, OpenObject, ReadEntries};
    use.begin()[data[0] % use.size()](user);
    server.ldap.Answer(nullptr);
    return 0;
}
