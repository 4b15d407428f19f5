/* nRF51 board: SysTick runs at the 16 MHz core clock; UART0 at 0x40002000. */
#include "board.h"

#define UART_STARTTX REG32(0x40002008u)
#define UART_STOPTX REG32(0x4000200Cu)
#define UART_ENABLE REG32(0x40002500u)
#define UART_TXD REG32(0x4000251Cu)

const uint32_t board_tick_reload = 3200u - 1u;

void board_uart_on(void) {
  UART_ENABLE = 4u;
  UART_STARTTX = 1u;
}

void board_uart_put(uint8_t byte) { UART_TXD = byte; }

void board_uart_off(void) {
  UART_STOPTX = 1u;
  UART_ENABLE = 0u;
}
