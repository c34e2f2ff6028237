#include "CVEKPCAPDump.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <iterator>
#include <new>
#include <string>
#include <utility>

#include "CVEKTime.h"
#include "VEKRegularFile.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

// The records of a file as they stand in it. The first two are in host order, which their readers
// tell from the magic number; the packet headers are in network order.
struct pcap_hdr {
    uint32_t magic;
    uint16_t majorVersion;
    uint16_t minorVersion;
    int32_t zone;
    uint32_t accuracy;
    uint32_t snapLength;
    uint32_t linkType;
};
struct pcaprec_hdr_s {
    uint32_t ts_sec;
    uint32_t ts_usec;
    uint32_t incl_len;
    uint32_t orig_len;
};
struct EthernetHeader {
    uint8_t destination[6];
    uint8_t source[6];
    uint16_t type;
};
struct IPv4Header {
    uint8_t version;  // and the header's length in words
    uint8_t service;
    uint16_t length;
    uint16_t id;
    uint16_t fragment;
    uint8_t ttl;
    uint8_t protocol;
    uint16_t checksum;
    uint32_t source;
    uint32_t destination;
};
struct UDPHeader {
    uint16_t sourcePort;
    uint16_t destinationPort;
    uint16_t length;
    uint16_t checksum;
};
static_assert(sizeof(pcap_hdr) == 24);
static_assert(sizeof(pcaprec_hdr_s) == 16);
static_assert(sizeof(EthernetHeader) == 14);
static_assert(sizeof(IPv4Header) == 20);
static_assert(sizeof(UDPHeader) == 8);

// The snapshot length is below that of most packets, which are stored whole all the same: meant.
constexpr pcap_hdr FILE_HEADER = {0xA1B2C3D4, 2, 4, 0, 0, 80, 1};

constexpr uint16_t TYPE_IPV4 = 0x0800;
constexpr uint16_t DONT_FRAGMENT = 0x4000;
constexpr uint16_t PORT = 3868;
constexpr size_t DATAGRAM_HEADERS_SIZE = sizeof(IPv4Header) + sizeof(UDPHeader);
constexpr size_t HEADERS_SIZE = sizeof(EthernetHeader) + DATAGRAM_HEADERS_SIZE;
// The length field of IPv4 has 16 bits.
constexpr size_t MAX_PAYLOAD_SIZE = UINT16_MAX - DATAGRAM_HEADERS_SIZE;

constexpr mode_t OWNER_ONLY = 0600;
constexpr mode_t EVERYBODY = 0666;

pcaprec_hdr_s MakeRecordHeader(size_t len) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const auto size = static_cast<uint32_t>(len + HEADERS_SIZE);
    return {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec), size, size};
}

EthernetHeader MakeEthernetHeader() {
    return {{0x00, 0x01, 0x01, 0x00, 0x00, 0x02},
            {0x00, 0x01, 0x01, 0x00, 0x00, 0x01},
            htons(TYPE_IPV4)};
}

IPv4Header MakeIPv4Header(size_t len, const char* source, const char* destination) {
    IPv4Header header{};
    header.version = 0x45;
    header.service = 0x02;
    header.length = htons(static_cast<uint16_t>(len + DATAGRAM_HEADERS_SIZE));
    header.fragment = htons(DONT_FRAGMENT);
    header.ttl = 64;
    header.protocol = IPPROTO_UDP;
    header.source = inet_addr(source);
    header.destination = inet_addr(destination);
    return header;
}

UDPHeader MakeUDPHeader(size_t len) {
    const auto length = static_cast<uint16_t>(len + sizeof(UDPHeader));
    return {htons(PORT), htons(PORT), htons(length), 0};
}

template <class ITEM>
iovec MakeItem(const ITEM& item) {
    return {const_cast<ITEM*>(&item), sizeof item};
}

}  // namespace

CVEKPCAPDump::CVEKPCAPDump()
    : path_(),
      name_(),
      srcIP_(),
      destIP_(),
      fp_(nullptr),
      maxFileSize_(0),
      isWhole_(false),
      isOwnerOnly_(false),
      wholeSize_(0),
      isTorn_(false),
      isFailing_(false),
      leftOut_(0),
      curSize_(0) {}

CVEKPCAPDump::~CVEKPCAPDump() {
    Finalize();
}

bool CVEKPCAPDump::Initialize(const char* path, const char* name, int maxFileSize,
                              const char* srcIP, const char* destIP) {
    const bool isFit = VEK_COPY_TEXT(path_, path) && VEK_COPY_TEXT(name_, name) &&
                       VEK_COPY_TEXT(srcIP_, srcIP) && VEK_COPY_TEXT(destIP_, destIP);
    if (!isFit) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "capture path, name or address too long!...");
        return false;
    }
    maxFileSize_ = maxFileSize;
    return Open();
}

bool CVEKPCAPDump::Open() try {
    Finalize();
    const std::string path =
        std::string(path_) + "/" + name_ + "." + CVEKTime().AscTime("CCYYMMDDhhmmss") + ".pcap";
    fp_ = VEK_OPEN_REGULAR_FILE(path.c_str(), O_TRUNC, isOwnerOnly_ ? OWNER_ONLY : EVERYBODY);
    if (fp_ == nullptr) {
        if (IsToBeSaid()) {
            VEK_SYSTEM_CALL_LOG("fopen(%s) failed...", path.c_str());
        }
        return false;
    }
    wholeSize_ = 0;
    isTorn_ = false;
    const iovec header = MakeItem(FILE_HEADER);
    if (!WriteItems(&header, 1)) {
        if (isWhole_) {
            Finalize();
            remove(path.c_str());
        }
        return false;
    }
    curSize_ = sizeof FILE_HEADER;
    return true;
} catch (const std::bad_alloc&) {  // on the way to the name
    errno = ENOMEM;
    if (IsToBeSaid()) {
        VEK_SYSTEM_CALL_LOG("fopen(%s) failed...", name_);
    }
    return false;
}

bool CVEKPCAPDump::Write(const char* data, int len) {
    if (len < 1) {
        return false;
    }
    auto left = static_cast<size_t>(len);
    bool isWritten = true;
    while (isWritten && left > 0) {
        const size_t size = std::min(left, MAX_PAYLOAD_SIZE);
        isWritten = WritePacket(data, size);
        data += size;
        left -= size;
    }
    if (isWritten) {
        TellLeftOut();
    } else {
        ++leftOut_;
    }
    return isWritten;
}

void CVEKPCAPDump::Finalize() {
    if (fp_ != nullptr && fclose(std::exchange(fp_, nullptr)) != 0) {
        VEK_SYSTEM_CALL_LOG("fclose() failed...");
    }
}

bool CVEKPCAPDump::WritePacket(const char* data, size_t len) {
    const bool isToBegin = isWhole_ && fp_ == nullptr && path_[0] != '\0';
    if ((isToBegin || curSize_ > maxFileSize_) && !Open()) {
        return false;
    }
    const pcaprec_hdr_s record = MakeRecordHeader(len);
    const EthernetHeader ethernet = MakeEthernetHeader();
    const IPv4Header ip = MakeIPv4Header(len, srcIP_, destIP_);
    const UDPHeader udp = MakeUDPHeader(len);
    const iovec items[] = {MakeItem(record),
                           MakeItem(ethernet),
                           MakeItem(ip),
                           MakeItem(udp),
                           {const_cast<char*>(data), len}};
    if (!WriteItems(items, static_cast<int>(std::size(items)))) {
        return false;
    }
    curSize_ += std::min(static_cast<int>(len), INT_MAX - curSize_);
    return true;
}

bool CVEKPCAPDump::WriteItems(const iovec* items, int count) {
    return isWhole_ ? WriteWhole(items, count)
                    : std::all_of(items, items + count, [this](const iovec& item) {
                          return WriteItem(item.iov_base, item.iov_len);
                      });
}

bool CVEKPCAPDump::WriteItem(const void* item, size_t size) {
    if (fp_ == nullptr) {  // not open yet, or no more
        return false;
    }
    if (fwrite(item, size, 1, fp_) != 1) {
        VEK_SYSTEM_CALL_LOG("fwrite() failed...");
        return false;
    }
    return true;
}

// Writes all of the items behind the last whole packet, or leaves the file as it was.
bool CVEKPCAPDump::WriteWhole(const iovec* items, int count) {
    if (fp_ == nullptr) {
        return false;
    }
    TakeBack();
    long size = 0;
    for (int i = 0; i < count; ++i) {
        size += static_cast<long>(items[i].iov_len);
    }
    const ssize_t written = isTorn_ ? -1 : pwritev(fileno(fp_), items, count, wholeSize_);
    if (written == size) {
        wholeSize_ += size;
        return true;
    }
    if (written >= 0) {
        errno = ENOSPC;  // which the system says only when nothing could be written
        isTorn_ = true;
    }
    if (IsToBeSaid()) {
        VEK_SYSTEM_CALL_LOG("fwrite() failed, chunks are left out...");
    }
    TakeBack();
    return false;
}

void CVEKPCAPDump::TakeBack() {
    isTorn_ = isTorn_ && ftruncate(fileno(fp_), wholeSize_) != 0;
}

// A full disk fails each packet.
bool CVEKPCAPDump::IsToBeSaid() {
    return !isWhole_ || !std::exchange(isFailing_, true);
}

void CVEKPCAPDump::TellLeftOut() {
    if (isFailing_) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "capture goes on, chunks left out(%lu)...", leftOut_);
    }
    isFailing_ = false;
    leftOut_ = 0;
}
