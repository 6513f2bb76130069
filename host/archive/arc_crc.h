// The archive's checksums. Every byte of every frame passes through one on
// the write path and again when a folder is verified or exported, so the
// current format uses CRC-32C, which the processor computes itself where it
// can; the common CRC-32 stays for files of the first format and for the
// digest in camera folder names (which must never change).
#pragma once

#include <cstddef>
#include <cstdint>

namespace warc {

// The common CRC-32 (polynomial 0xEDB88320 reflected, initial and final value
// 0xFFFFFFFF). A seed chains a checksum over several pieces.
uint32_t Crc32(const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av = 0);

// CRC-32C (Castagnoli, polynomial 0x82F63B78 reflected, initial and final
// value 0xFFFFFFFF), by the fastest way this processor offers.
uint32_t Crc32c(const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av = 0);

// The two ways Crc32c may take, for tests that hold them to each other.
uint32_t Crc32cPortable(const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av = 0);
// False when the processor has no CRC-32C instruction; the checksum is then
// left alone.
bool Crc32cHardware(const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av, uint32_t* p_out_av);

}  // namespace warc
