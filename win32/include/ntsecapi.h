// The local security authority's look-ups.
#pragma once
#include <windows.h>
typedef PVOID LSA_HANDLE, *PLSA_HANDLE;
typedef struct _LSA_UNICODE_STRING {
    USHORT Length, MaximumLength;
    PWSTR Buffer;
} LSA_UNICODE_STRING, *PLSA_UNICODE_STRING;
typedef struct _LSA_OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PLSA_UNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor, SecurityQualityOfService;
} LSA_OBJECT_ATTRIBUTES, *PLSA_OBJECT_ATTRIBUTES;
typedef struct _LSA_TRUST_INFORMATION {
    LSA_UNICODE_STRING Name;
    PSID Sid;
} LSA_TRUST_INFORMATION, *PLSA_TRUST_INFORMATION;
typedef struct _LSA_REFERENCED_DOMAIN_LIST {
    ULONG Entries;
    PLSA_TRUST_INFORMATION Domains;
} LSA_REFERENCED_DOMAIN_LIST, *PLSA_REFERENCED_DOMAIN_LIST;
typedef struct _LSA_TRANSLATED_NAME {
    SID_NAME_USE Use;
    LSA_UNICODE_STRING Name;
    LONG DomainIndex;
} LSA_TRANSLATED_NAME, *PLSA_TRANSLATED_NAME;
#define POLICY_LOOKUP_NAMES 0x00000800
extern "C" {
NTSTATUS NTAPI LsaOpenPolicy(PLSA_UNICODE_STRING system, PLSA_OBJECT_ATTRIBUTES attributes, ACCESS_MASK access,
                             PLSA_HANDLE policy);
NTSTATUS NTAPI LsaLookupSids(LSA_HANDLE policy, ULONG count, PSID* sids, PLSA_REFERENCED_DOMAIN_LIST* domains,
                             PLSA_TRANSLATED_NAME* names);
NTSTATUS NTAPI LsaFreeMemory(PVOID buffer);
NTSTATUS NTAPI LsaClose(LSA_HANDLE policy);
ULONG NTAPI LsaNtStatusToWinError(NTSTATUS status);
}
