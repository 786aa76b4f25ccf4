// SPDX-License-Identifier: Apache-2.0
#include "varn/ref_base.h"

namespace VARN {

RefBase::~RefBase() = default;

}  // namespace VARN
