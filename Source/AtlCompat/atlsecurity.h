#pragma once
// The part of ATL's atlsecurity.h that QXCommon's interface uses (CSid,
// CAccessToken), for toolchains that ship no ATL.

#include "atlbase.h"
