/* A program outside the tree, built against the installed library. */
#include <ks/imsg.h>
#include <ks/ks_product.h>
#include <ks/stg.h>

int main(int argc, char **argv)
{
    char home[1024];
    stg_area_t area;
    (void)argc;
    ks_system_init();
    imsg_set_app_name(argv[0]);
    area = stg_create_area(128);
    if (stg_area_strdup(area, "consumer") == NULL)
        return 1;
    stg_delete_area(&area);
    imsg_print(IMSG_OK, "consumer: product home %s\n", -1, ks_product_dir(home, NULL));
    return 0;
}
