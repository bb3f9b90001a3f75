/*
 * The size of a page.
 */
#include <unistd.h>

#include "priv_rova_page_size.h"

size_t priv_rova_get_page_size(void)
{
    return static_cast<size_t>(::sysconf(_SC_PAGESIZE));
}
