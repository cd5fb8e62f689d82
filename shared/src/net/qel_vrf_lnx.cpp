// VRFs on Linux: none that the service would know. Clients come and go; lookups are not supported.
#include <cerrno>

#include "net/qel_vrf.hpp"

namespace qel::vrf {

cerrno vrf_od_bind(const Client&) {
    return 0;
}

cerrno vrf_od_unbind(const Client&) {
    return 0;
}

cerrno vrf_od_bulk_get_vrf_from_id(const Client&, const std::uint64_t*, qel_if_vrf*, cerrno*, std::size_t) {
    return fatal(EOPNOTSUPP);
}

cerrno vrf_od_bulk_get_vrf_from_name(const Client&, const char* const*, qel_if_vrf*, cerrno*, std::size_t) {
    return fatal(EOPNOTSUPP);
}

}  // namespace qel::vrf
