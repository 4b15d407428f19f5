/* The fault handler: never reached by a correct run, so a trace that shows
 * it points at a fault in the emulation or the program. */
#include <stdint.h>

volatile uint32_t fault_count;

void HardFault_Handler(void) {
  fault_count++;
  for (;;) {
  }
}
