// The shim of the library: the links of the Linux kernel.
#pragma once

#include <qel/if_shim.h>

namespace qel::interfaces {

// Its registration, for slot 0.
const qel_if_shim_registration& lnx_registration();

}  // namespace qel::interfaces
