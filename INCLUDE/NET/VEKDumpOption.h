// What a capture may do besides: for EnableDump of CVEKSocketNew and of both connection classes.
#ifndef VEK_DUMP_OPTION_H
#define VEK_DUMP_OPTION_H

struct VEK_ST_DUMP_OPTIONS {
    // Files hold whole packets only, also on a disk that is full for a while; see
    // CVEKPCAPDump::SetWholePackets. Otherwise what follows a packet that a full disk has cut
    // cannot be read.
    bool isWhole_ = false;
    // TLS connections too, in clear text: what is sent before it is encrypted, what is received
    // once it has been decrypted. Such files give away what TLS protects, and can be read by their
    // owner only. Otherwise nothing of TLS is copied.
    bool hasTLS_ = false;
};

#endif
