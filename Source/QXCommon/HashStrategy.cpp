#include "QXCommon/HashStrategy.h"

namespace QXCommon
{
IHashStrategy::~IHashStrategy() = default;
} // namespace QXCommon
