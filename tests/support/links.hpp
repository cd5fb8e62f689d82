// Links of a network namespace of one's own, made and removed over rtnetlink.
#pragma once

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace qel_test {

// Moves this thread, and those that it starts later, into a network namespace with nothing but "lo". False
// without the right to.
inline bool enter_own_network() {
    return unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
}

class Links {
  public:
    Links() : socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}
    Links(const Links&) = delete;
    Links& operator=(const Links&) = delete;
    ~Links() { close(socket_); }

    // Makes a link of a kind such as "ifb", of group 1; false if the kernel refuses.
    bool add(const std::string& name, const std::string& kind = "ifb") {
        Request request{RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, 0};
        request.put(IFLA_IFNAME, name);
        request.put(IFLA_GROUP, 1);
        const std::size_t info = request.open(IFLA_LINKINFO);
        request.put(IFLA_INFO_KIND, kind);
        request.close(info);
        return send(request);
    }
    bool remove(const std::string& name) {
        return send(Request{RTM_DELLINK, 0, if_nametoindex(name.c_str())});
    }
    // Removes all links that add() made, at once.
    bool remove_all() {
        Request request{RTM_DELLINK, 0, 0};
        request.put(IFLA_GROUP, 1);
        return send(request);
    }
    // Takes a link out of use or into it.
    bool set_up(const std::string& name, bool up) {
        return send(Request{RTM_NEWLINK, 0, if_nametoindex(name.c_str()), up ? unsigned{IFF_UP} : 0, IFF_UP});
    }
    // Puts a link into a bridge, or out with "".
    bool set_master(const std::string& name, const std::string& bridge) {
        Request request{RTM_NEWLINK, 0, if_nametoindex(name.c_str())};
        request.put(IFLA_MASTER, bridge.empty() ? 0 : if_nametoindex(bridge.c_str()));
        return send(request);
    }

  private:
    class Request {
      public:
        // 'change' says which of the flags in 'up' count.
        Request(int type, int flags, unsigned index, unsigned up = 0, unsigned change = 0) {
            nlmsghdr header{};
            header.nlmsg_type = static_cast<std::uint16_t>(type);
            header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
            ifinfomsg body{};
            body.ifi_index = static_cast<int>(index);
            body.ifi_flags = up;
            body.ifi_change = change;
            append(&header, sizeof(header));
            append(&body, sizeof(body));
        }
        void put(int type, const std::string& text) { put(type, text.c_str(), text.size() + 1); }
        void put(int type, std::uint32_t number) { put(type, &number, sizeof(number)); }
        std::size_t open(int type) {
            const std::size_t at = bytes_.size();
            const rtattr attribute{0, static_cast<std::uint16_t>(type)};
            append(&attribute, sizeof(attribute));
            return at;
        }
        void close(std::size_t at) {
            const auto length = static_cast<std::uint16_t>(bytes_.size() - at);
            std::memcpy(&bytes_[at], &length, sizeof(length));
            bytes_.resize((bytes_.size() + 3) & ~std::size_t{3});
        }
        const std::vector<char>& finish() {
            const auto length = static_cast<std::uint32_t>(bytes_.size());
            std::memcpy(bytes_.data(), &length, sizeof(length));
            return bytes_;
        }

      private:
        void put(int type, const void* value, std::size_t size) {
            const std::size_t at = open(type);
            append(value, size);
            close(at);
        }
        void append(const void* from, std::size_t size) {
            const auto* bytes = static_cast<const char*>(from);
            bytes_.insert(bytes_.end(), bytes, bytes + size);
        }
        std::vector<char> bytes_;
    };

    // Sends it and waits for the kernel's word.
    bool send(Request request) {
        const std::vector<char>& bytes = request.finish();
        if (::send(socket_, bytes.data(), bytes.size(), 0) < 0) return false;
        alignas(4) std::array<char, 8192> answer;
        const ssize_t size = recv(socket_, answer.data(), answer.size(), 0);
        int error = -1;
        if (size >= static_cast<ssize_t>(sizeof(nlmsghdr) + sizeof(error)))
            std::memcpy(&error, answer.data() + sizeof(nlmsghdr), sizeof(error));
        return error == 0;
    }

    int socket_;
};

}  // namespace qel_test
