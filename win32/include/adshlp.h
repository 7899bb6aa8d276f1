// Opening directory objects by path.
#pragma once
#include <iads.h>
extern "C" HRESULT WINAPI ADsOpenObject(LPCWSTR path, LPCWSTR user, LPCWSTR password, DWORD flags, REFIID iid,
                                        void** object);
