/* A 32-bit program without libraries: opens the node and asks for the cable. Its exit status is the
 * answer, 100 when a call fails. */
static int Call(int number, int first, void* second, void* third) {
    int result;
    __asm__ volatile("int $0x80" : "=a"(result) : "a"(number), "b"(first), "c"(second), "d"(third) : "memory");
    return result;
}

void _start(void) {
    int value = -7;
    const int node = Call(5, (int)"/dev/zt-usb", (void*)2, 0);
    if (node < 0 || Call(54, node, (void*)0x40046C02, &value) != 0) value = 100;
    Call(1, value, 0, 0);
    __builtin_unreachable();
}
