// SPDX-License-Identifier: Apache-2.0
// The kernel's side of the CAN socket operations.
#include <velmor/kepla/canopen/CanSocketApi.h>

#include <cerrno>
#include <cstring>

#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velmor::kepla::canopen {

namespace {

/// An interface request for a name; errno is ENODEV for a name that no interface can have.
bool named(ifreq& aRequest, char const* aName) {
    std::size_t const length = std::strlen(aName);
    if (length == 0 || length >= sizeof(aRequest.ifr_name)) {
        errno = ENODEV;
        return false;
    }
    std::memcpy(aRequest.ifr_name, aName, length + 1);
    return true;
}

class PosixCanSocketApi final : public CanSocketApi {
public:
    int open() override { return ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW); }

    int interfaceIndex(int aSocket, char const* aName) override {
        ifreq request{};
        if (!named(request, aName) || ::ioctl(aSocket, SIOCGIFINDEX, &request) < 0) {
            return -1;
        }
        return request.ifr_ifindex;
    }

    int interfaceFlags(int aSocket, char const* aName) override {
        ifreq request{};
        if (!named(request, aName) || ::ioctl(aSocket, SIOCGIFFLAGS, &request) < 0) {
            return -1;
        }
        return static_cast<int>(static_cast<unsigned short>(request.ifr_flags));
    }

    int setOption(int aSocket, int aLevel, int aOption, void const* aValue, unsigned aSize) override {
        return ::setsockopt(aSocket, aLevel, aOption, aValue, aSize);
    }

    int bind(int aSocket, int aInterfaceIndex) override {
        sockaddr_can address{};
        address.can_family = AF_CAN;
        address.can_ifindex = aInterfaceIndex;
        void* const untyped = &address;
        return ::bind(aSocket, static_cast<sockaddr*>(untyped), sizeof(address));
    }

    ssize_t read(int aSocket, bool aWait, can_frame& aFrame, unsigned& aDropped) override {
        iovec part{&aFrame, sizeof(aFrame)};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(aDropped))];
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        ssize_t const result = ::recvmsg(aSocket, &message, aWait ? 0 : MSG_DONTWAIT);
        if (result >= 0) {
            for (cmsghdr* note = CMSG_FIRSTHDR(&message); note != nullptr;
                 note = CMSG_NXTHDR(&message, note)) {
                if (note->cmsg_level == SOL_SOCKET && note->cmsg_type == SO_RXQ_OVFL) {
                    std::memcpy(&aDropped, CMSG_DATA(note), sizeof(aDropped));
                }
            }
        }
        return result;
    }

    ssize_t write(int aSocket, can_frame const& aFrame) override {
        return ::send(aSocket, &aFrame, sizeof(aFrame), MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    int poll(pollfd* aEntries, nfds_t aCount, int aTimeoutMs) override {
        return ::poll(aEntries, aCount, aTimeoutMs);
    }

    int close(int aSocket) override { return ::close(aSocket); }
};

} // namespace

std::shared_ptr<CanSocketApi> CanSocketApi::posix() {
    static auto const sKernel = std::make_shared<PosixCanSocketApi>();
    return sKernel;
}

} // namespace velmor::kepla::canopen
