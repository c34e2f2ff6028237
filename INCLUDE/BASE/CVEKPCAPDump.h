// CVEKPCAPDump: copies traffic into capture files that packet analysers open.
//
// Each chunk becomes one packet, Ethernet, IPv4 and UDP, between two fixed addresses and from port
// 3868 to port 3868, whatever the traffic really ran over and in whichever direction. A chunk that
// is too long for one packet (65507 bytes) becomes several.
//
// The files are called path/name.CCYYMMDDhhmmss.pcap after the local time at their start. A file of
// the same second is overwritten; none is ever deleted. What is written reaches the disk through
// the stream's buffer, the last of it at Finalize. A file that meets a full disk ends there for its
// readers, also when there is room again, unless SetWholePackets is used.
//
// One thread at a time uses an object. Failures are results, after an Info line of the service log.
#ifndef CVEK_PCAP_DUMP_H
#define CVEK_PCAP_DUMP_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdio>

#include "VEKExport.h"

class VEK_API CVEKPCAPDump {
  public:
    // No file yet: call Initialize first.
    CVEKPCAPDump();
    // Calls Finalize.
    ~CVEKPCAPDump();

    CVEKPCAPDump(const CVEKPCAPDump&) = delete;
    CVEKPCAPDump& operator=(const CVEKPCAPDump&) = delete;

    // On request a file holds whole packets only, whatever becomes of the disk: each is written at
    // once, without the stream's buffer, and what was written of one that failed is taken back. An
    // Info line says when that begins, a Warning line how many chunks were left out, wholly or in
    // part, once there is room again. A file that cannot even be begun is removed, and begun anew
    // by the next chunk. To be called before Initialize.
    void SetWholePackets(bool isWanted) { isWhole_ = isWanted; }
    // On request files that are made can be read and written by their owner only. To be called
    // before Initialize.
    void SetOwnerOnly(bool isWanted) { isOwnerOnly_ = isWanted; }
    // Copies its arguments and starts the first file. path: the directory, which must exist; name:
    // the beginning of the file names; both up to 4095 characters. maxFileSize: a packet that comes
    // when the file has more bytes than this, headers of packets not counted, starts a new one.
    // srcIP, destIP: the packets' addresses, dotted, up to 63 characters; other text stands for
    // 255.255.255.255. False, after an Error line, when a text is too long, and when Open fails.
    bool Initialize(const char* path, const char* name, int maxFileSize, const char* srcIP,
                    const char* destIP);
    // Closes the current file and starts a new one.
    bool Open();
    // Appends `len` bytes, 1 or more. After a failure the file may end in a part of a packet (see
    // SetWholePackets), and the bytes are lost; later calls try anew.
    bool Write(const char* data, int len);
    // Closes the file. Safe to repeat.
    void Finalize();

  private:
    bool WritePacket(const char* data, size_t len);
    bool WriteItems(const iovec* items, int count);
    bool WriteItem(const void* item, size_t size);
    bool WriteWhole(const iovec* items, int count);
    void TakeBack();
    bool IsToBeSaid();
    void TellLeftOut();

    char path_[4096];
    char name_[4096];
    char srcIP_[64];
    char destIP_[64];
    FILE* fp_;
    int maxFileSize_;
    bool isWhole_;
    bool isOwnerOnly_;
    long wholeSize_;         // bytes of whole packets, with the file's header
    bool isTorn_;            // the file may have more
    bool isFailing_;         // as an Info line has said
    unsigned long leftOut_;  // chunks, since then
    int curSize_;            // the file's header and payloads; packet headers do not count: meant
};

#endif
