// CRC-32 and CRC-32C for the archive's files. CRC-32C runs on the
// processor's crc32 instruction when it has one (chosen once, at load), in
// three independent lanes so that the instruction's latency is hidden; the
// lanes are joined by multiplying by a power of x, from small tables. Without
// the instruction it takes eight bytes a step from tables, as CRC-32 does.
#include "host/archive/arc_crc.h"

#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#define WARC_CRC_X86 1
#endif

namespace warc {

namespace {

const uint32_t POLY_CRC32 = 0xEDB88320u;
const uint32_t POLY_CRC32C = 0x82F63B78u;

// Eight tables, so that the checksum takes eight bytes a step (slicing by
// eight). Table 0 is the common byte table; table k advances a byte by k more.
struct SliceTable {
  uint32_t m_ui_table[8][256];
  explicit SliceTable(uint32_t ui_poly_av) {
    for (uint32_t ui_lv = 0; ui_lv < 256; ui_lv++) {
      uint32_t ui_c_lv = ui_lv;
      for (int i_lv = 0; i_lv < 8; i_lv++) ui_c_lv = (ui_c_lv & 1) ? ui_poly_av ^ (ui_c_lv >> 1) : ui_c_lv >> 1;
      m_ui_table[0][ui_lv] = ui_c_lv;
    }
    for (int i_k_lv = 1; i_k_lv < 8; i_k_lv++)
      for (uint32_t ui_lv = 0; ui_lv < 256; ui_lv++) {
        uint32_t ui_prev_lv = m_ui_table[i_k_lv - 1][ui_lv];
        m_ui_table[i_k_lv][ui_lv] = (ui_prev_lv >> 8) ^ m_ui_table[0][ui_prev_lv & 0xFF];
      }
  }
};
const SliceTable g_crc32_table(POLY_CRC32);
const SliceTable g_crc32c_table(POLY_CRC32C);

uint32_t SliceBy8(const SliceTable& table_av, const uint8_t* pb_av, size_t ui_len_av, uint32_t ui_crc_av) {
  const uint32_t(*t_lv)[256] = table_av.m_ui_table;
  uint32_t ui_c_lv = ui_crc_av ^ 0xFFFFFFFFu;
  size_t ui_lv = 0;
  for (; ui_lv + 8 <= ui_len_av; ui_lv += 8) {
    uint32_t ui_lo_lv = ui_c_lv ^ (static_cast<uint32_t>(pb_av[ui_lv]) | static_cast<uint32_t>(pb_av[ui_lv + 1]) << 8 |
                                  static_cast<uint32_t>(pb_av[ui_lv + 2]) << 16 |
                                  static_cast<uint32_t>(pb_av[ui_lv + 3]) << 24);
    ui_c_lv = t_lv[7][ui_lo_lv & 0xFF] ^ t_lv[6][(ui_lo_lv >> 8) & 0xFF] ^ t_lv[5][(ui_lo_lv >> 16) & 0xFF] ^
              t_lv[4][ui_lo_lv >> 24] ^ t_lv[3][pb_av[ui_lv + 4]] ^ t_lv[2][pb_av[ui_lv + 5]] ^
              t_lv[1][pb_av[ui_lv + 6]] ^ t_lv[0][pb_av[ui_lv + 7]];
  }
  for (; ui_lv < ui_len_av; ui_lv++) ui_c_lv = t_lv[0][(ui_c_lv ^ pb_av[ui_lv]) & 0xFF] ^ (ui_c_lv >> 8);
  return ui_c_lv ^ 0xFFFFFFFFu;
}

#if WARC_CRC_X86

// Lane lengths of the three-lane loops: long ones for large frames, short
// ones for the rest of a frame and for small frames.
const size_t LANE_LONG = 8192;
const size_t LANE_SHORT = 256;

// A 32x32 matrix over GF(2), one column a word, times a vector.
uint32_t MatrixTimes(const uint32_t* pui_mat_av, uint32_t ui_vec_av) {
  uint32_t ui_sum_lv = 0;
  for (; ui_vec_av != 0; ui_vec_av >>= 1, pui_mat_av++)
    if (ui_vec_av & 1) ui_sum_lv ^= *pui_mat_av;
  return ui_sum_lv;
}

void MatrixSquare(uint32_t* pui_out_av, const uint32_t* pui_mat_av) {
  for (int i_lv = 0; i_lv < 32; i_lv++) pui_out_av[i_lv] = MatrixTimes(pui_mat_av, pui_mat_av[i_lv]);
}

// Byte tables of the operator that feeds ui_bytes_av zero bytes through the
// checksum register (ui_bytes_av a power of two): a lane's register moved
// past the lanes after it.
struct ShiftTable {
  uint32_t m_ui_table[4][256];
  explicit ShiftTable(size_t ui_bytes_av) {
    uint32_t ui_op_lv[32], ui_sq_lv[32];
    ui_op_lv[0] = POLY_CRC32C;  // one zero bit
    for (int i_lv = 1; i_lv < 32; i_lv++) ui_op_lv[i_lv] = 1u << (i_lv - 1);
    // Square from one bit up to 8 * ui_bytes_av bits.
    for (size_t ui_bits_lv = 1; ui_bits_lv < 8 * ui_bytes_av; ui_bits_lv *= 2) {
      MatrixSquare(ui_sq_lv, ui_op_lv);
      memcpy(ui_op_lv, ui_sq_lv, sizeof(ui_op_lv));
    }
    for (uint32_t ui_lv = 0; ui_lv < 256; ui_lv++)
      for (int i_k_lv = 0; i_k_lv < 4; i_k_lv++) m_ui_table[i_k_lv][ui_lv] = MatrixTimes(ui_op_lv, ui_lv << (8 * i_k_lv));
  }
  uint32_t Shift(uint32_t ui_crc_av) const {
    return m_ui_table[0][ui_crc_av & 0xFF] ^ m_ui_table[1][(ui_crc_av >> 8) & 0xFF] ^
           m_ui_table[2][(ui_crc_av >> 16) & 0xFF] ^ m_ui_table[3][ui_crc_av >> 24];
  }
};
const ShiftTable g_shift_long(LANE_LONG);
const ShiftTable g_shift_short(LANE_SHORT);

bool CpuHasCrc32c() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.2");
}
const bool g_b_hw = CpuHasCrc32c();

uint64_t Load64(const uint8_t* pb_av) {
  uint64_t ui64_lv;
  memcpy(&ui64_lv, pb_av, 8);
  return ui64_lv;
}

// Three lanes of ui_lane_av bytes each, as long as that many remain.
__attribute__((target("sse4.2"))) uint32_t Lanes(const uint8_t** ppb_av, size_t* p_len_av, uint32_t ui_c_av,
                                                 size_t ui_lane_av, const ShiftTable& shift_av) {
  const uint8_t* pb_lv = *ppb_av;
  uint64_t ui64_c0_lv = ui_c_av;
  while (*p_len_av >= 3 * ui_lane_av) {
    uint64_t ui64_c1_lv = 0, ui64_c2_lv = 0;
    for (const uint8_t* pb_end_lv = pb_lv + ui_lane_av; pb_lv < pb_end_lv; pb_lv += 8) {
      ui64_c0_lv = _mm_crc32_u64(ui64_c0_lv, Load64(pb_lv));
      ui64_c1_lv = _mm_crc32_u64(ui64_c1_lv, Load64(pb_lv + ui_lane_av));
      ui64_c2_lv = _mm_crc32_u64(ui64_c2_lv, Load64(pb_lv + 2 * ui_lane_av));
    }
    ui64_c0_lv = shift_av.Shift(static_cast<uint32_t>(ui64_c0_lv)) ^ ui64_c1_lv;
    ui64_c0_lv = shift_av.Shift(static_cast<uint32_t>(ui64_c0_lv)) ^ ui64_c2_lv;
    pb_lv += 2 * ui_lane_av;
    *p_len_av -= 3 * ui_lane_av;
  }
  *ppb_av = pb_lv;
  return static_cast<uint32_t>(ui64_c0_lv);
}

__attribute__((target("sse4.2"))) uint32_t Crc32cX86(const uint8_t* pb_av, size_t ui_len_av, uint32_t ui_crc_av) {
  uint32_t ui_c_lv = ui_crc_av ^ 0xFFFFFFFFu;
  ui_c_lv = Lanes(&pb_av, &ui_len_av, ui_c_lv, LANE_LONG, g_shift_long);
  ui_c_lv = Lanes(&pb_av, &ui_len_av, ui_c_lv, LANE_SHORT, g_shift_short);
  uint64_t ui64_c_lv = ui_c_lv;
  for (; ui_len_av >= 8; pb_av += 8, ui_len_av -= 8) ui64_c_lv = _mm_crc32_u64(ui64_c_lv, Load64(pb_av));
  ui_c_lv = static_cast<uint32_t>(ui64_c_lv);
  for (; ui_len_av > 0; pb_av++, ui_len_av--) ui_c_lv = _mm_crc32_u8(ui_c_lv, *pb_av);
  return ui_c_lv ^ 0xFFFFFFFFu;
}

#endif  // WARC_CRC_X86

}  // namespace

uint32_t Crc32(const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av) {
  return SliceBy8(g_crc32_table, static_cast<const uint8_t*>(p_data_av), ui_len_av, ui_crc_av);
}

uint32_t Crc32cPortable(const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av) {
  return SliceBy8(g_crc32c_table, static_cast<const uint8_t*>(p_data_av), ui_len_av, ui_crc_av);
}

bool Crc32cHardware(const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av, uint32_t* p_out_av) {
#if WARC_CRC_X86
  if (!g_b_hw) return false;
  *p_out_av = Crc32cX86(static_cast<const uint8_t*>(p_data_av), ui_len_av, ui_crc_av);
  return true;
#else
  (void)p_data_av;
  (void)ui_len_av;
  (void)ui_crc_av;
  (void)p_out_av;
  return false;
#endif
}

uint32_t Crc32c(const void* p_data_av, size_t ui_len_av, uint32_t ui_crc_av) {
#if WARC_CRC_X86
  if (g_b_hw) return Crc32cX86(static_cast<const uint8_t*>(p_data_av), ui_len_av, ui_crc_av);
#endif
  return Crc32cPortable(p_data_av, ui_len_av, ui_crc_av);
}

}  // namespace warc
