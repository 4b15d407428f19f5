/* Bitwise CRC-32: the branch in the loop depends on the data. */
#include "checksum.h"

uint32_t crc_update(uint32_t crc, uint8_t byte) {
  crc ^= byte;
  for (int bit = 0; bit < 8; ++bit) {
    if (crc & 1u) {
      crc = (crc >> 1) ^ 0xEDB88320u;
    } else {
      crc >>= 1;
    }
  }
  return crc;
}
