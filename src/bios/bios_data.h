// Internal interface of the BIOS backup file decoder.  The decoder works on
// the file's bytes in memory so that the same code serves the library and
// the fuzz target; nothing here is exported from the shared object.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmxvlib.h"

// One row of the backup file layout table: where a setting of port 0 sits
// and how far the next port's value is.
struct hba_bios_table {
    const char *attribute;         // the setting's option word
    int sector_no;                 // 27: BIOS area, 4: additional-WWN area
    unsigned long adress;          // byte offset of port 0's value in the area
    long size;                     // bytes
    unsigned long next_port_byte;  // stride from one port's block to the next
};
constexpr int kHbaBiosRows = 13;
// The layout table; its last row is the end mark, the attribute "NULL".
extern const hba_bios_table hba_bios_lst[kHbaBiosRows];

constexpr int kSectorBios = 27;
constexpr int kSectorAddWwn = 4;
constexpr std::size_t kBiosFileAreaOffset = 256;
constexpr std::size_t HBA_BIOS_SIZE = 1024;
constexpr std::size_t ADDWWN_SIZE = 80;
constexpr std::size_t kBiosFileSize = kBiosFileAreaOffset + HBA_BIOS_SIZE + ADDWWN_SIZE;  // 1360
// Port blocks in one file: four 256-byte blocks, four 16-byte WWN slots.
constexpr int kBiosFilePorts = 4;

// The header fields the reader takes, each read as raw bytes in host order.
struct qmx_bios_file_header {
    uint32_t ver;
    uint8_t bus, dev, func, pkgcd;
    uint32_t device_id;
    uint8_t pre_conf;
};

// Reads the header fields in file order.  0, or -1 with code 9 and
// "Headder read error(<field>)" traced for the first field the data cannot
// fill.
int qmx_ReadBiosFileHeader(const uint8_t *data, std::size_t len, qmx_bios_file_header *hdr);

// Compares the file's device identifier with the adapter's (the word as the
// driver returns it, put into network order here).  Both are written with "%8x"; the file's
// text has its four byte pairs swapped end for end first.  false: code 9 and
// "Headder read error(device_id unmatch)" with the two texts traced.
bool qmx_BiosFileDeviceMatch(uint32_t file_id, uint32_t adapter_id);

// Reads the rest of the file after the header (the 8 bytes at 16, the BIOS
// area at 256, the additional-WWN area at 1280) and decodes the settings of
// port `port_no` (0..3) through hba_bios_lst, then the pre-configuration
// code of the header.  0, or -1 with code 9 (10 for a port number outside
// the file's four blocks).
int qmx_ReadBiosFileBody(const uint8_t *data, std::size_t len, int port_no, uint8_t pre_conf,
                         QMX_BIOS_DATA *bios_data);

// Decodes one layout row's setting from `data` (the row's area, `len`
// bytes), at adress + port_no * next_port_byte.  0, or -1 (code 9) when the
// value would lie outside the area.
int qmx_read_restorefile(const hba_bios_table *trg, const uint8_t *data, std::size_t len,
                         int port_no, QMX_BIOS_DATA *bios_data);

// Stores the pre-configuration switch from the header's code when
// `attribute` is "pre_configure": 1 or 3 give 1, 0 or 2 give 0, others 255.
int qmx_read_preconf(const char *title, const char *attribute, uint8_t data,
                     QMX_BIOS_DATA *bios_dat);
