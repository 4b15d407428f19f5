/* Startup code shared by the test programs: the vector table, the reset
 * handler that lays out .data and .bss, and default handlers. Written for
 * Armv6-M and Armv7-M alike (no instructions beyond Thumb-1 in the reset
 * path). */
#include <stdint.h>

extern uint32_t __data_load__, __data_start__, __data_end__;
extern uint32_t __bss_start__, __bss_end__;
extern uint32_t __stack_top__;

int main(void);

void Reset_Handler(void);
void Default_Handler(void);
void NMI_Handler(void) __attribute__((weak, alias("Default_Handler")));
void HardFault_Handler(void) __attribute__((weak, alias("Default_Handler")));
void SVC_Handler(void) __attribute__((weak, alias("Default_Handler")));
void PendSV_Handler(void) __attribute__((weak, alias("Default_Handler")));
void SysTick_Handler(void) __attribute__((weak, alias("Default_Handler")));
void TIMER0_IRQHandler(void) __attribute__((weak, alias("Default_Handler")));

typedef void (*vector_fn)(void);

__attribute__((section(".vectors"), used)) const vector_fn vector_table[] = {
    (vector_fn)&__stack_top__,
    Reset_Handler,
    NMI_Handler,
    HardFault_Handler,
    0, 0, 0, 0, 0, 0, 0,
    SVC_Handler,
    0, 0,
    PendSV_Handler,
    SysTick_Handler,
    TIMER0_IRQHandler,
};

void Reset_Handler(void) {
  uint32_t* src = &__data_load__;
  for (uint32_t* dst = &__data_start__; dst < &__data_end__;) *dst++ = *src++;
  for (uint32_t* dst = &__bss_start__; dst < &__bss_end__;) *dst++ = 0;
  main();
  for (;;) {
    __asm volatile("wfi");
  }
}

void Default_Handler(void) {
  for (;;) {
  }
}
