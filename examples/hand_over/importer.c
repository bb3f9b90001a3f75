/*
 * Makes a region over the exporter's memory from the descriptor alone, and reads and writes it
 * through its own device.
 *
 * importer DESCRIPTOR_FILE
 */
#include <inttypes.h>

#include "hand_over.h"
#include "priv_rova_umem_api.h"
#include "rova_platform.h"
#include "rova_soft_platform.h"

int main(int argc, char** argv)
{
    static char descriptor[max_descriptor_size];
    static const char answer[] = "written by the importer";
    char seen[sizeof answer];
    struct rova_dev* dev;
    struct priv_rova_umem* umem;
    uint32_t id;
    size_t size;
    FILE* file;

    if (argc != 2) {
        fprintf(stderr, "usage: importer DESCRIPTOR_FILE\n");
        return 2;
    }
    file = fopen(argv[1], "rb");
    must_be_true(file != NULL, argv[1]);
    size = fread(descriptor, 1, sizeof descriptor, file);
    must_be_true(ferror(file) == 0 && fclose(file) == 0, argv[1]);

    must(rova_soft_dev_open(&dev));
    /* The last address is only kept with the region, and must not be NULL. The importer has no
       address for this memory, so it passes any. */
    must(priv_rova_umem_create_from_export(dev, descriptor, size, descriptor, &umem));
    must(priv_rova_umem_id_get(umem, &id));

    must(rova_platform_dev_read(dev, id, 0, seen, sizeof seen));
    printf("umem %" PRIu32 " holds \"%.*s\"\n", id, (int)sizeof seen, seen);
    must(rova_platform_dev_write(dev, id, 0, answer, sizeof answer));

    must(priv_rova_umem_destroy(umem));
    must(rova_platform_dev_close(dev));
    return EXIT_SUCCESS;
}
