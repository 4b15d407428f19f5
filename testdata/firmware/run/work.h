#ifndef RUN_WORK_H
#define RUN_WORK_H
#include <stdint.h>
uint32_t process_block(uint32_t seed);
void report(uint32_t value);
#endif
