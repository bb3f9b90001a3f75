/*
 * Registers memory of the program with a software device, and reads it through the device.
 */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include "rova_soft_platform.h"
#include "rova_umem.h"

/* The library has already logged what went wrong, so the program only stops. */
static void must(rova_error_t code)
{
    if (code != ROVA_SUCCESS) {
        fprintf(stderr, "stopped by %s\n", rova_error_get_name(code));
        exit(EXIT_FAILURE);
    }
}

int main(void)
{
    char memory[] = "Hello, device!";
    char seen[sizeof memory];
    struct rova_dev* dev;
    struct rova_umem* umem;
    uint32_t id;

    must(rova_soft_dev_open(&dev));
    must(rova_umem_create(dev, memory, sizeof memory, ROVA_PLATFORM_ACCESS_READ, &umem));
    must(rova_umem_get_id(umem, &id));

    must(rova_platform_dev_read(dev, id, 0, seen, sizeof seen));
    printf("umem %" PRIu32 " holds \"%s\"\n", id, seen);

    must(rova_umem_destroy(umem));
    must(rova_platform_dev_close(dev));
    return EXIT_SUCCESS;
}
