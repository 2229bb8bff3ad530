#pragma once

// Port and sub-port numbers: chassis, pim and port in four bytes, and their
// one-based text forms.
#include <string>

// Zero-based chassis/pim/port of one port, plus switch id. The text form is
// one-based "chassis.pim.port".
struct PORT_NUM {
    unsigned char portId;
    unsigned char pimId;
    unsigned char ccId;
    unsigned char swId;

    constexpr PORT_NUM() : PORT_NUM(0xFFFFFFFFu) {}
    // Bytes taken as they are: portId bits 0-7 ... swId bits 24-31.
    constexpr PORT_NUM(unsigned int v)
        : portId(static_cast<unsigned char>(v)), pimId(static_cast<unsigned char>(v >> 8)),
          ccId(static_cast<unsigned char>(v >> 16)), swId(static_cast<unsigned char>(v >> 24))
    {
    }
    constexpr PORT_NUM(int v) : PORT_NUM(static_cast<unsigned int>(v)) {}
    explicit PORT_NUM(const char* text);

    unsigned int value() const
    {
        return static_cast<unsigned int>(portId) | static_cast<unsigned int>(pimId) << 8 |
               static_cast<unsigned int>(ccId) << 16 | static_cast<unsigned int>(swId) << 24;
    }
    bool operator==(const PORT_NUM& o) const { return value() == o.value(); }
    bool operator!=(const PORT_NUM& o) const { return value() != o.value(); }
    bool operator<(const PORT_NUM& o) const { return value() < o.value(); }

    bool isValid() const;
    // One-based "c.p.p"; "INVALID" and "ALL" for the two constants.
    std::string toString() const;

    static const PORT_NUM INVALID_PORT_NUM;
    static const PORT_NUM ALL_PORT_NUMS;
    static constexpr unsigned MAX_CHASSIS = 8;
    static constexpr unsigned MAX_PIMS = 12;
};
static_assert(sizeof(PORT_NUM) == 4, "PORT_NUM is four bytes");

// Sub-port: zero-based chassis/pim/port and the sub-port (1 rx, 2 tx).
struct SUBPORT_NUM {
    unsigned char portId;
    unsigned char pimId;
    unsigned char ccId;
    unsigned char subportId;

    static constexpr unsigned char SUBPORT_RX = 1;
    static constexpr unsigned char SUBPORT_TX = 2;

    constexpr SUBPORT_NUM() : SUBPORT_NUM(-1) {}
    // Reads one-based bytes and subtracts 1 from every one, the sub-port
    // included: ccId bits 24-31, pimId 16-23, portId 8-15, subportId 0-7.
    // Deliberately unlike PORT_NUM(unsigned).
    constexpr SUBPORT_NUM(int v)
        : portId(static_cast<unsigned char>((static_cast<unsigned int>(v) >> 8) - 1)),
          pimId(static_cast<unsigned char>((static_cast<unsigned int>(v) >> 16) - 1)),
          ccId(static_cast<unsigned char>((static_cast<unsigned int>(v) >> 24) - 1)),
          subportId(static_cast<unsigned char>(static_cast<unsigned int>(v) - 1))
    {
    }
    explicit SUBPORT_NUM(const char* text);

    bool operator==(const SUBPORT_NUM& o) const
    {
        return portId == o.portId && pimId == o.pimId && ccId == o.ccId && subportId == o.subportId;
    }
    bool operator!=(const SUBPORT_NUM& o) const { return !(*this == o); }

    PORT_NUM port() const;
    bool isValid() const { return subportId == SUBPORT_RX || subportId == SUBPORT_TX; }
    // "c.p.p.s": chassis, pim and port one-based, the sub-port as stored.
    std::string toString() const;

    static const SUBPORT_NUM INVALID_SUBPORT_NUM;
};
static_assert(sizeof(SUBPORT_NUM) == 4, "SUBPORT_NUM is four bytes");
