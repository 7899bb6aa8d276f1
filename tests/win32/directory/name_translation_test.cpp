// Names translated and objects opened through the Windows interfaces, out of a directory of two domains.
#include <adshlp.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/temporary_root.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

using win32::ToUtf16;
using win32::ToUtf8;

namespace {

constexpr HRESULT NotFound = HRESULT(0x80072116u), NotUnique = HRESULT(0x80072117u), NoMapping = HRESULT(0x80072118u),
                  NoSuchObject = HRESULT(0x80072030u), ServerDown = HRESULT(0x8007203Au);
constexpr LONG Dn = ADS_NAME_TYPE_1779, Nt4 = ADS_NAME_TYPE_NT4, Simple = ADS_NAME_TYPE_DOMAIN_SIMPLE,
               Sid = ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME;

constexpr const char* TwoDomains = R"(dn: CN=CORP,CN=Partitions,CN=Configuration,DC=corp
nCName: DC=corp
dnsRoot: corp.example
nETBIOSName: CORP

dn: CN=EU,CN=Partitions,CN=Configuration,DC=corp
nCName: DC=eu,DC=corp
dnsRoot: eu.corp.example
nETBIOSName: EU

dn: CN=Ann,OU=Ops\, all,DC=corp
sAMAccountName: ann
userPrincipalName: ann.a@corp.example
objectSid: S-1-5-21-1-2-3-1104
primaryGroupID: 513
memberOf: CN=Ops/Net,DC=corp

dn: CN=Ann,DC=eu,DC=corp
sAMAccountName: Ann
userPrincipalName: both@mail.example
objectSid: S-1-5-21-4-5-6-1104

dn: CN=Bob,DC=corp
sAMAccountName: bob
userPrincipalName: both@mail.example
objectSid: S-1-5-21-1-2-3-1105
memberOf: CN=Ops/Net,DC=corp
memberOf: CN=Users,CN=Builtin,DC=corp
primaryGroupID: many

dn: CN=Ops/Net,DC=corp
sAMAccountName: opsnet

dn: CN=Users,CN=Builtin,DC=corp
sAMAccountName: Users
objectSid: S-1-5-32-545

dn: CN=Twin 1,DC=corp
sAMAccountName: twin

dn: CN=Twin 2,DC=corp
sAMAccountName: TWIN

dn: OU=Ops\, all,DC=corp

dn: CN=Elsewhere,DC=other
sAMAccountName: else
)";

class Directory : public testing::Test {
protected:
    Directory() {
        EXPECT_EQ(S_OK, CoInitialize(nullptr));
        root.Write("directory.ldif", TwoDomains);
    }
    ~Directory() override { CoUninitialize(); }

    struct NAME {
        HRESULT result;
        std::string text;
        bool operator==(const NAME&) const = default;
    };

    static NAME Translate(LONG from, std::string_view name, LONG to) {
        IADsNameTranslate* translator = nullptr;
        HRESULT result = CoCreateInstance(CLSID_NameTranslate, nullptr, CLSCTX_INPROC_SERVER, IID_IADsNameTranslate,
                                          reinterpret_cast<void**>(&translator));
        if (FAILED(result)) return {result, ""};
        const std::u16string wide = ToUtf16(name);
        const BSTR input = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
        BSTR output = nullptr;
        result = translator->Init(ADS_NAME_INITTYPE_GC, nullptr);
        if (SUCCEEDED(result)) result = translator->Set(from, input);
        if (SUCCEEDED(result)) result = translator->Get(to, &output);
        NAME answer{result, output ? ToUtf8({output, SysStringLen(output)}) : ""};
        SysFreeString(input);
        SysFreeString(output);
        EXPECT_EQ(0u, translator->Release());
        return answer;
    }

    static HRESULT Open(const char16_t* path, IADs** object) {
        return ADsOpenObject(path, nullptr, nullptr, ADS_SECURE_AUTHENTICATION, IID_IADs,
                             reinterpret_cast<void**>(object));
    }

    const TEMPORARY_ROOT root;
};

TEST_F(Directory, TranslatesEveryKindOfNameIntoEveryOther) {
    struct CASE {
        LONG from;
        std::string name;
        LONG to;
        HRESULT result;
        const char* wanted;
    };
    const std::string nul("\0", 1);
    const CASE cases[] = {
        {Nt4, "corp\\ANN", Dn, S_OK, "CN=Ann,OU=Ops\\, all,DC=corp"},
        {Nt4, "EU\\ann", Dn, S_OK, "CN=Ann,DC=eu,DC=corp"},
        {Nt4, "CORP\\bob", Sid, S_OK, "S-1-5-21-1-2-3-1105"},
        {Dn, "cn=ann, ou=ops\\2C all, dc=corp", Nt4, S_OK, "CORP\\ann"},
        {Dn, "CN=Ann,DC=eu,DC=corp", Nt4, S_OK, "EU\\Ann"},
        {Dn, "CN=Ann,DC=eu,DC=corp", Simple, S_OK, "Ann@eu.corp.example"},
        {Dn, "CN=Ops/Net,DC=corp", Nt4, S_OK, "CORP\\opsnet"},
        {Dn, "CN=Users,CN=Builtin,DC=corp", Nt4, S_OK, "BUILTIN\\Users"},
        {Simple, "ann@CORP.EXAMPLE", Nt4, S_OK, "CORP\\ann"},
        {Simple, "ann@eu.corp.example", Nt4, S_OK, "EU\\Ann"},
        {Simple, "ann.a@corp.example", Nt4, S_OK, "CORP\\ann"},
        {Simple, "both@mail.example", Nt4, NotUnique, ""},
        {Simple, "ann", Nt4, NotFound, ""},
        {Sid, "S-1-5-21-4-5-6-1104", Nt4, S_OK, "EU\\Ann"},
        {Sid, "S-1-5-21-1-2-3-9", Dn, NotFound, ""},
        {Sid, "S-1-5-21-", Dn, NotFound, ""},
        {Nt4, "CORP\\twin", Dn, NotUnique, ""},
        {Nt4, "NONE\\ann", Dn, NotFound, ""},
        {Nt4, "CORP\\else", Dn, NotFound, ""},
        {Nt4, "ann", Dn, NotFound, ""},
        {Nt4, "CORP\\", Dn, NotFound, ""},
        {Nt4, "", Dn, NotFound, ""},
        {Nt4, "CORP\\*", Dn, NotFound, ""},
        {Nt4, "CORP\\*)(objectClass=*", Dn, NotFound, ""},
        {Nt4, "CORP\\ann" + nul, Dn, NotFound, ""},
        {Nt4, "CORP\\a\\ann", Dn, NotFound, ""},
        {Nt4, "CORP\\" + std::string(1000, 'a'), Dn, NotFound, ""},
        {Simple, std::string(1000, '@'), Nt4, NotFound, ""},
        {Dn, std::string(100000, 'a'), Nt4, NotFound, ""},
        {Dn, "CN=Nobody,DC=corp", Nt4, NotFound, ""},
        {Dn, "", Nt4, NotFound, ""},
        {Dn, "OU=Ops\\, all,DC=corp", Nt4, NoMapping, ""},
        {Dn, "CN=Elsewhere,DC=other", Nt4, NoMapping, ""},
        {Dn, "CN=Twin 1,DC=corp", Sid, NoMapping, ""},
        {4, "CORP\\ann", Dn, E_NOTIMPL, ""},
        {Nt4, "CORP\\ann", 4, E_NOTIMPL, ""},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name.substr(0, 60));
        const NAME got = Translate(c.from, c.name, c.to);
        EXPECT_EQ(static_cast<DWORD>(c.result), static_cast<DWORD>(got.result)) << std::hex << got.result;
        EXPECT_EQ(c.wanted, got.text);
    }
}

TEST_F(Directory, TheFilesChangesShowAtOnceAndABrokenFileChangesNothing) {
    root.Write("directory.ldif", std::string(TwoDomains) + "\ndn: CN=New,DC=corp\nsAMAccountName: new\n");
    EXPECT_EQ("CN=New,DC=corp", Translate(Nt4, "CORP\\new", Dn).text);
    root.Write("directory.ldif", "dn: CN=broken\nthis is no attribute\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ("CN=New,DC=corp", Translate(Nt4, "CORP\\new", Dn).text);
    EXPECT_EQ("CN=New,DC=corp", Translate(Nt4, "CORP\\new", Dn).text);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, said.find("directory.ldif, line 2: ")) << said;
    EXPECT_EQ(said.find("line 2"), said.rfind("line 2")) << "said once: " << said;
    root.Write("directory.ldif", "");
    EXPECT_EQ(NotFound, Translate(Nt4, "CORP\\new", Dn).result);
}

TEST_F(Directory, ThatWasNeverReadableIsDownAndWithoutAFileThereIsNone) {
    root.Write("directory.ldif", "broken");
    EXPECT_EQ(ServerDown, Translate(Nt4, "CORP\\ann", Dn).result);
    std::filesystem::remove(root.Path("directory.ldif"));
    EXPECT_EQ(REGDB_E_CLASSNOTREG, Translate(Nt4, "CORP\\ann", Dn).result);
    IADs* object = nullptr;
    EXPECT_EQ(E_ADS_BAD_PATHNAME, Open(u"LDAP://CN=Bob,DC=corp", &object));
    EXPECT_EQ(nullptr, object);
}

TEST_F(Directory, OrderOfCallsAndArgumentsAreChecked) {
    IADsNameTranslate* translator = nullptr;
    ASSERT_EQ(S_OK, CoCreateInstance(CLSID_NameTranslate, nullptr, CLSCTX_INPROC_SERVER, IID_IADsNameTranslate,
                                     reinterpret_cast<void**>(&translator)));
    BSTR name = SysAllocString(u"CORP\\ann"), text = nullptr;
    EXPECT_TRUE(FAILED(translator->Set(Nt4, name))) << "before Init";
    EXPECT_EQ(E_INVALIDARG, translator->Init(4, nullptr));
    EXPECT_EQ(E_INVALIDARG, translator->Init(ADS_NAME_INITTYPE_SERVER, name)) << "not a server's name";
    EXPECT_EQ(S_OK, translator->Init(ADS_NAME_INITTYPE_GC, nullptr));
    EXPECT_TRUE(FAILED(translator->Get(Dn, &text))) << "before Set";
    EXPECT_EQ(S_OK, translator->Set(Nt4, name));
    EXPECT_EQ(NotFound, translator->Set(Sid, name));
    EXPECT_TRUE(FAILED(translator->Get(Dn, &text))) << "the name set before is gone";
    EXPECT_EQ(E_NOTIMPL, translator->put_ChaseReferral(0x20));
    SysFreeString(name);
    void* other = nullptr;
    EXPECT_EQ(E_NOINTERFACE, translator->QueryInterface(IID_IADs, &other));
    EXPECT_EQ(nullptr, other);
    EXPECT_EQ(0u, translator->Release());
}

TEST_F(Directory, ObjectsGiveOneMembershipAsAStringAndSeveralAsAnArray) {
    struct CASE {
        const char16_t *path, *attribute;
        HRESULT result;
        VARTYPE type;
    };
    const CASE cases[] = {
        {u"LDAP://CN=Ann,OU=Ops\\, all,DC=corp", u"memberOf", S_OK, VT_BSTR},
        {u"LDAP://dc1/CN=Bob,DC=corp", u"MEMBEROF", S_OK, VT_ARRAY | VT_VARIANT},
        {u"LDAP://CN=Bob,DC=corp", u"objectSid", S_OK, VT_ARRAY | VT_UI1},
        {u"LDAP://CN=Ann,OU=Ops\\, all,DC=corp", u"primaryGroupID", S_OK, VT_I4},
        {u"LDAP://CN=Bob,DC=corp", u"primaryGroupID", HRESULT(0x8007203Du), VT_EMPTY},
        {u"LDAP://CN=Ops\\/Net,DC=corp", u"memberOf", E_ADS_PROPERTY_NOT_FOUND, VT_EMPTY},
        {u"LDAP://CN=Ops\\/Net,DC=corp", u"objectSid", E_ADS_PROPERTY_NOT_FOUND, VT_EMPTY},
        {u"LDAP://CN=Bob,DC=corp", u"unicodePwd", E_NOTIMPL, VT_EMPTY},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(ToUtf8(c.path) + " " + ToUtf8(c.attribute));
        IADs* object = nullptr;
        ASSERT_EQ(S_OK, Open(c.path, &object));
        const BSTR name = SysAllocString(c.attribute);
        VARIANT value;
        VariantInit(&value);
        EXPECT_EQ(c.result, object->GetEx(name, &value));
        EXPECT_EQ(c.type, value.vt);
        if (value.vt == VT_BSTR) {
            EXPECT_EQ("CN=Ops/Net,DC=corp", ToUtf8(value.bstrVal));
        } else if (value.vt == VT_I4) {
            EXPECT_EQ(513, value.lVal);
        } else if (value.vt == (VT_ARRAY | VT_VARIANT)) {
            EXPECT_EQ("CN=Users,CN=Builtin,DC=corp", ToUtf8(static_cast<VARIANT*>(value.parray->pvData)[1].bstrVal));
        } else if (value.vt == (VT_ARRAY | VT_UI1)) {
            EXPECT_EQ(28u, value.parray->rgsabound[0].cElements);
        }
        VariantClear(&value);
        SysFreeString(name);
        EXPECT_EQ(0u, object->Release());
    }
    IADs* object = nullptr;
    EXPECT_EQ(NoSuchObject, Open(u"LDAP://CN=Nobody,DC=corp", &object));
    EXPECT_EQ(E_ADS_BAD_PATHNAME, Open(u"LDAP://CN=Ops/Net,DC=corp", &object));
    EXPECT_EQ(E_ADS_BAD_PATHNAME, Open(u"LDAP://", &object));
    EXPECT_EQ(nullptr, object);
}

}  // namespace
