/* Compiled as C99: every public header must be plain C.  Calls into the
 * frame so that the shared library's C entry points link and run. */
#include "ks_all_headers.h"

#include <stdio.h>
#include <string.h>

int main(void)
{
    stg_area_t area = stg_create_area(64);
    char *copy = stg_area_strdup(area, "frame");
    if (copy == NULL || strcmp(copy, "frame") != 0)
        return 1;
    stg_delete_area(&area);
    if (area != STG_AREA_NULL)
        return 1;
    printf("c_api_check: ok\n");
    return 0;
}
