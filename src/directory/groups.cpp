#include "directory/groups.h"

#include <sddl.h>

#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "diagnostics/debug_output.h"
#include "directory/com.h"
#include "directory/directory_object.h"
#include "directory/name_translation.h"
#include "platform/error_text.h"
#include "platform/handles.h"
#include "platform/string.h"

namespace keldwick {

namespace {

constexpr HRESULT PropertyNotFound = static_cast<HRESULT>(0x8000500D);  // E_ADS_PROPERTY_NOT_FOUND
constexpr const WCHAR* MemberOf = TEXT("memberOf");
constexpr const WCHAR* PrimaryGroupId = TEXT("primaryGroupID");
constexpr const WCHAR* ObjectSid = TEXT("objectSid");

bool UnexpectedType(DWORD flags, VARTYPE type) {
    DebugPrintMasked(flags, TEXT("AddObjectGroups: Unexpected VARIANT type = %#x"), type);
    return false;
}

enum class NEXT { VALUE, END, FAILED };

// The values of one object's memberOf attribute, handed out one by one.
class MEMBERSHIP {
public:
    // False, with a message, when the attribute cannot be read; an object in no group has no values.
    bool Read(IADs* object, const WCHAR* dn) {
        const COM_STRING attribute(MemberOf);
        const HRESULT hr = object->GetEx(attribute.Get(), values.Put());
        if (hr == PropertyNotFound) return true;
        if (FAILED(hr)) {
            DebugPrintErrorMasked(DEBUG_AD, ERROR_CODE::FromDirectory(hr),
                                  TEXT("AddObjectGroups: Unable to get \"%s\" property for \"%s\".\n    "), MemberOf,
                                  dn);
            return false;
        }
        if (Type() == VT_BSTR) return SetRange(0, 0);
        if (Type() != (VT_ARRAY | VT_VARIANT)) return UnexpectedType(DEBUG_AD, Type());
        LONG lower = 0;
        LONG upper = 0;
        if (FAILED(SafeArrayGetLBound(values.Get().parray, 1, &lower))) return false;
        if (FAILED(SafeArrayGetUBound(values.Get().parray, 1, &upper))) return false;
        return SetRange(lower, upper);
    }

    NEXT Next(STRING& groupDn) {
        if (next > last) return NEXT::END;
        LONG position = static_cast<LONG>(next++);
        if (Type() == VT_BSTR) return Take(values.Get().bstrVal, groupDn);
        COM_VARIANT element;
        if (FAILED(SafeArrayGetElement(values.Get().parray, &position, element.Put()))) return NEXT::FAILED;
        if (element.Get().vt != VT_BSTR) {
            UnexpectedType(DEBUG_AD, element.Get().vt);
            return NEXT::FAILED;
        }
        return Take(element.Get().bstrVal, groupDn);
    }

private:
    VARTYPE Type() const { return values.Get().vt; }
    bool SetRange(LONG lower, LONG upper) {
        next = lower;
        last = upper;
        return true;
    }
    static NEXT Take(const WCHAR* text, STRING& groupDn) {
        groupDn.Assign(text);
        return NEXT::VALUE;
    }

    COM_VARIANT values;
    LONGLONG next = 0;  // index of the next value
    LONGLONG last = -1;
};

// Lists the group and opens it. True without an object: it was already listed. False: it cannot be opened.
bool ListGroup(const WCHAR* groupDn, GROUP_LIST& list, COM_POINTER<IADs>& object, const DIRECTORY_BINDING* binding) {
    GROUP* const group = list.Add(groupDn);
    if (group == nullptr) {
        DebugPrint(TEXT("AddGroup: \"%s\" already in list; ignoring"), groupDn);
        return true;
    }
    HRESULT hr = S_OK;
    if (!TranslateName(ADS_NAME_TYPE_1779, groupDn, ADS_NAME_TYPE_NT4, group->domain, hr, binding))
        SetLastError(static_cast<DWORD>(hr));
    DebugPrint(TEXT("AddGroup:\n    Domain = \"%s\",\n    DN = \"%s\""), group->domain, groupDn);
    return OpenDirectoryObject(TEXT("Group"), groupDn, IID_IADs, object.Put(), binding);
}

// An attribute of the object that its primary group is found by.
bool GetPrimaryAttribute(IADs* object, const WCHAR* dn, const WCHAR* name, COM_VARIANT& value) {
    const COM_STRING attribute(name);
    const HRESULT hr = object->Get(attribute.Get(), value.Put());
    if (SUCCEEDED(hr)) return true;
    DebugPrintErrorMasked(DEBUG_AD, ERROR_CODE::FromDirectory(hr),
                          TEXT("GetPrimaryGroup: Unable to get \"%s\" property for \"%s\".\n    "), name, dn);
    return false;
}

struct TASK_MEMORY_CLOSER {
    using TYPE = BYTE*;
    static void Close(TYPE memory) { CoTaskMemFree(memory); }
};
using TASK_MEMORY_OWNER = OWNER<TASK_MEMORY_CLOSER>;

// A copy of a byte array's bytes; nothing is said when it is empty. Throws COM_ERROR when memory runs out.
bool CopySidBytes(const VARIANT& value, const WCHAR* dn, TASK_MEMORY_OWNER& bytes, size_t& size) {
    LONG lower = 0;
    LONG upper = 0;
    if (FAILED(SafeArrayGetLBound(value.parray, 1, &lower))) return false;
    if (FAILED(SafeArrayGetUBound(value.parray, 1, &upper))) return false;
    if (upper < lower) return true;
    size = static_cast<size_t>(static_cast<LONGLONG>(upper) - lower + 1);
    bytes.Reset(static_cast<BYTE*>(CoTaskMemAlloc(size)));
    if (!bytes) throw COM_ERROR{E_OUTOFMEMORY};
    void* data = nullptr;
    const HRESULT hr = SafeArrayAccessData(value.parray, &data);
    if (FAILED(hr)) {
        DebugPrintErrorMasked(DEBUG_AD, ERROR_CODE::FromDirectory(hr),
                              TEXT("GetPrimaryGroup: Unable to access \"%s\" array data for \"%s\".\n    "), ObjectSid,
                              dn);
        return false;
    }
    std::memcpy(bytes.Get(), data, size);
    SafeArrayUnaccessData(value.parray);
    return true;
}

// ConvertSidToStringSidW believes the count of sub-authorities that the bytes state.
bool IsWholeSid(const BYTE* bytes, size_t size) {
    constexpr size_t header = 8;  // revision, count, authority
    return bytes != nullptr && size >= header && size >= header + bytes[1] * sizeof(DWORD);
}

// The object's SID as text, from the bytes of its objectSid attribute.
bool SidText(const VARIANT& value, const WCHAR* dn, STRING& text) {
    TASK_MEMORY_OWNER bytes;
    size_t size = 0;
    if (!CopySidBytes(value, dn, bytes, size)) return false;
    LOCAL_TEXT_OWNER sid;
    if (!IsWholeSid(bytes.Get(), size) || !ConvertSidToStringSidW(bytes.Get(), sid.Put())) {
        DebugPrintMasked(DEBUG_AD, TEXT("GetPrimaryGroup: Unable to convert primary group SID to a string."));
        return false;
    }
    text.Assign(sid.Get());
    return true;
}

// The SID in the object's domain that has the given relative identifier.
bool SidInDomainOf(const STRING& objectSid, LONG relativeId, STRING& sid) {
    const size_t dash = objectSid.View().rfind(TEXT('-'));
    if (dash == TEXT_VIEW::npos) {
        DebugPrintMasked(DEBUG_AD, TEXT("GetPrimaryGroup: primary group SID \"%s\" does not contain a dash (-)."),
                         objectSid);
        return false;
    }
    sid.Format(TEXT("%s%u"), STRING(objectSid.View().substr(0, dash + 1)), static_cast<DWORD>(relativeId));
    return true;
}

}  // namespace

GROUP* GROUP_LIST::Add(const WCHAR* dn) {
    const size_t hash = CollationHash(dn);
    const auto [begin, end] = index.equal_range(hash);
    for (auto candidate = begin; candidate != end; ++candidate)
        if (candidate->second->dn.EqualsNoCase(dn)) return nullptr;
    GROUP& group = entries.emplace_back();
    group.dn.Assign(dn);
    index.emplace(hash, &group);
    return &group;
}

bool GetGroups(const WCHAR* nt4Name, GROUP_LIST& list, const DIRECTORY_BINDING* binding) {
    STRING dn;
    if (!Nt4NameToDn(nt4Name, dn, binding)) return false;
    COM_POINTER<IADs> user;
    if (!OpenDirectoryObject(TEXT("User"), dn.Text(), IID_IADs, user.Put(), binding)) return false;
    DebugPrint(TEXT("Getting groups for \"%s\""), dn);
    GetPrimaryGroup(user.Get(), dn.Text(), list, binding);  // a user without one still has groups
    return AddObjectGroups(user.Get(), dn.Text(), list, binding);
}

bool AddGroup(const WCHAR* groupDn, GROUP_LIST& list, const DIRECTORY_BINDING* binding) {
    COM_POINTER<IADs> group;
    if (!ListGroup(groupDn, list, group, binding)) return false;
    return !group || AddObjectGroups(group.Get(), groupDn, list, binding);
}

// Walks with a stack of its own: how deep groups are nested is the directory's to say. Only the list's test for groups
// already there ends the walk where they are nested in a circle.
bool AddObjectGroups(IADs* object, const WCHAR* dn, GROUP_LIST& list, const DIRECTORY_BINDING* binding) {
    std::vector<MEMBERSHIP> path(1);
    if (!path.back().Read(object, dn)) return false;
    STRING groupDn;
    while (!path.empty()) {
        const NEXT step = path.back().Next(groupDn);
        if (step == NEXT::FAILED) return false;
        if (step == NEXT::END) {
            path.pop_back();
            continue;
        }
        COM_POINTER<IADs> group;
        if (!ListGroup(groupDn.Text(), list, group, binding)) return false;
        if (!group) continue;
        path.emplace_back();
        if (!path.back().Read(group.Get(), groupDn.Text())) return false;
    }
    return true;
}

bool GetPrimaryGroup(IADs* object, const WCHAR* dn, GROUP_LIST& list, const DIRECTORY_BINDING* binding) {
    COM_VARIANT primaryGroup;
    COM_VARIANT objectSid;
    if (!GetPrimaryAttribute(object, dn, PrimaryGroupId, primaryGroup)) return false;
    if (!GetPrimaryAttribute(object, dn, ObjectSid, objectSid)) return false;
    if (objectSid.Get().vt != (VT_ARRAY | VT_UI1)) return UnexpectedType(0, objectSid.Get().vt);
    STRING sid;
    if (!SidText(objectSid.Get(), dn, sid)) return false;
    STRING groupSid;
    if (!SidInDomainOf(sid, primaryGroup.Get().lVal, groupSid)) return false;
    STRING groupDn;
    HRESULT hr = S_OK;
    if (!TranslateName(ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME, groupSid.Text(), ADS_NAME_TYPE_1779, groupDn, hr,
                       binding)) {
        SetLastError(static_cast<DWORD>(hr));
        DebugPrintMasked(DEBUG_AD, TEXT("GetPrimaryGroup: Unable to convert SID \"%s\" to a DN."), groupSid);
        return false;
    }
    DebugPrint(TEXT("GetPrimaryGroup: DN = \"%s\"."), groupDn);
    return AddGroup(groupDn.Text(), list, binding);
}

}  // namespace keldwick
