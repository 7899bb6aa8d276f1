// The service control manager's interfaces; the layer declares them in windows.h.
#pragma once
#include <windows.h>
