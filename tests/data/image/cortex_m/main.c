/* A tiny Cortex-M program whose ELF file has what loaders get wrong: .data
 * stored in flash but run from RAM, .bss, padding between sections and a
 * second flash region. */
#include <stdint.h>

extern uint32_t _estack, __data_load__, __data_start__, __data_end__, __bss_start__, __bss_end__;

int main(void);

void reset_handler(void)
{
    const uint32_t* from = &__data_load__;
    for (uint32_t* to = &__data_start__; to < &__data_end__;) {
        *to++ = *from++;
    }
    for (uint32_t* to = &__bss_start__; to < &__bss_end__;) {
        *to++ = 0;
    }
    main();
    for (;;) {
    }
}

__attribute__((section(".isr_vector"), used)) const void* const vectors[] = {&_estack, (const void*)reset_handler};

uint32_t counter = 0x11223344;
char greeting[] = "hello from .data";
uint32_t zeros[64];
const char banner[] = "halyx test firmware";
__attribute__((section(".config"), used)) const uint32_t config[4] = {0xC0FFEE01, 2, 3, 4};

int main(void)
{
    zeros[1] = counter + (uint32_t)greeting[0] + (uint32_t)banner[0];
    return 0;
}
