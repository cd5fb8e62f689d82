// Requests that change interfaces, inside the service: how their results come back.
#pragma once

#include <qel/async.h>

#include <cstdint>

#include "net/qel_if.hpp"

namespace qel::interfaces {

// The shim that has the operation in its hands.
std::uint32_t shim_id_of(const net::Operation& operation);

// Stores a result with store(operation) and brings it to the operation's client.
template <class Store>
cerrno provide_result(net::Operation& operation, Store store) {
    Retained<Client> client = retain_client<"IFERROR240">(operation.client_handle);
    if (!client) return fatal(EINVAL);
    return Frame::provide(operation, store);
}

}  // namespace qel::interfaces
