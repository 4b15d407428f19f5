#ifndef RUN_CHECKSUM_H
#define RUN_CHECKSUM_H
#include <stdint.h>
uint32_t crc_update(uint32_t crc, uint8_t byte);
#endif
