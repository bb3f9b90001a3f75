/*
 * Registers memory, and hands it to the importer: writes the region's descriptor into a file, and
 * keeps the region until standard input ends.
 *
 * exporter DESCRIPTOR_FILE
 */
#include <sys/prctl.h>

#include "hand_over.h"
#include "priv_rova_umem_api.h"
#include "rova_platform.h"
#include "rova_soft_platform.h"

int main(int argc, char** argv)
{
    char memory[64] = "written by the exporter";
    struct rova_dev* dev;
    struct priv_rova_umem* umem;
    void* descriptor;
    size_t size;
    FILE* file;

    if (argc != 2) {
        fprintf(stderr, "usage: exporter DESCRIPTOR_FILE\n");
        return 2;
    }
    /* Some systems let only its parent access the memory of a process. The importer is not the
       parent, so all processes of this user are allowed to. */
    (void)prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);

    must(rova_soft_dev_open(&dev));
    must(priv_rova_umem_create(dev, memory, sizeof memory,
                               ROVA_PLATFORM_ACCESS_READ | ROVA_PLATFORM_ACCESS_WRITE, &umem));

    /* The region owns the descriptor's bytes. The programs decide how to transfer them. */
    must(priv_rova_umem_export(umem, &descriptor, &size));
    file = fopen(argv[1], "wb");
    must_be_true(file != NULL, argv[1]);
    must_be_true(fwrite(descriptor, 1, size, file) == size, argv[1]);
    must_be_true(fclose(file) == 0, argv[1]);
    printf("exported\n");
    must_be_true(fflush(stdout) == 0, "standard output");

    /* As long as the region exists, the importer's device can read and write this memory. */
    while (getchar() != EOF) {
    }
    printf("the memory holds \"%.*s\"\n", (int)sizeof memory, memory);

    must(priv_rova_umem_destroy(umem));
    must(rova_platform_dev_close(dev));
    return EXIT_SUCCESS;
}
