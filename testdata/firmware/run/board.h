/* What a program needs of its board: the tick timer and one peripheral that
 * is switched on and off. One implementation per board (board_*.c). */
#ifndef RUN_BOARD_H
#define RUN_BOARD_H
#include <stdint.h>

#define REG32(addr) (*(volatile uint32_t*)(addr))

/* SysTick of the core, clocked by the processor clock (CLKSOURCE = 1). */
#define SYST_CSR REG32(0xE000E010u)
#define SYST_RVR REG32(0xE000E014u)
#define SYST_CVR REG32(0xE000E018u)

/* Reload value of SysTick for one tick of 200 microseconds. */
extern const uint32_t board_tick_reload;

void board_uart_on(void);
void board_uart_put(uint8_t byte);
void board_uart_off(void);

static inline void enable_irq(void) { __asm volatile("cpsie i" ::: "memory"); }
static inline void disable_irq(void) { __asm volatile("cpsid i" ::: "memory"); }
static inline void wait_for_interrupt(void) { __asm volatile("wfi" ::: "memory"); }

#endif
