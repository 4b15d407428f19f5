/* MPS2 board: SysTick runs at the 25 MHz core clock; the APB UART0 at
 * 0x40004000, its transmitter enabled by bit 0 of CTRL. */
#include "board.h"

#define UART_DATA REG32(0x40004000u)
#define UART_CTRL REG32(0x40004008u)
#define UART_BAUDDIV REG32(0x40004010u)

const uint32_t board_tick_reload = 5000u - 1u;

void board_uart_on(void) {
  UART_BAUDDIV = 16u;
  UART_CTRL = 1u;
}

void board_uart_put(uint8_t byte) { UART_DATA = byte; }

void board_uart_off(void) { UART_CTRL = 0u; }
