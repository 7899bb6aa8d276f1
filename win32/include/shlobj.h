// Special folders.
#pragma once
#include <windows.h>
#define CSIDL_LOCAL_APPDATA 0x001c
#define SHGFP_TYPE_CURRENT 0
extern "C" HRESULT WINAPI SHGetFolderPathW(HWND owner, int folder, HANDLE token, DWORD flags, LPWSTR path);
