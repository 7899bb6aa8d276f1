// The version-information interfaces; the layer declares them in windows.h.
#pragma once
#include <windows.h>
