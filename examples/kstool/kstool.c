/* kstool: a small command built on liborvinks. */
#include "ks/imsg.h"
#include "ks/ks_product.h"

int main(int argc, char **argv)
{
    (void)argc;
    ks_system_init();
    imsg_set_app_name(argv[0]);
    return 0;
}
