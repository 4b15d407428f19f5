#ifndef RUN_FILTER_H
#define RUN_FILTER_H
#include <stdint.h>
uint32_t filter_step(uint32_t sample);
#endif
