/* Registers of the small device the test programs drive: a timer with an
 * interrupt and a GPIO port, plus the core's SysTick and NVIC. */
#ifndef DEVICE_H
#define DEVICE_H
#include <stdint.h>

#define REG32(addr) (*(volatile uint32_t*)(addr))

#define SYST_CSR REG32(0xE000E010u)
#define SYST_RVR REG32(0xE000E014u)
#define NVIC_ISER REG32(0xE000E100u)
#define TIMER0_CTRL REG32(0x40001000u)
#define TIMER0_STATUS REG32(0x40001004u)
#define GPIO_OUT REG32(0x40002000u)

static inline void enable_irq(void) { __asm volatile("cpsie i" ::: "memory"); }
static inline void disable_irq(void) { __asm volatile("cpsid i" ::: "memory"); }
static inline void wait_for_interrupt(void) { __asm volatile("wfi"); }

#endif
