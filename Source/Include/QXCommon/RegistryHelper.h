#pragma once

#include "QXCommonAPI.h"
