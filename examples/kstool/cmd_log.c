/* kstool log: appends lines to a command log, under a header naming the
 * date, host, process and user; other processes wait their turn. */
#include "kstool.h"
#include "kstool_log_msg.h"

int kstool_log(int argc, char **argv)
{
    int first, i;
    FILE *log;
    if (kstool_parse(argc, argv, kstool_no_flags, kstool_ignore_flag, NULL, &first))
        return 2;
    if (argc - first < 2) {
        imsg_print(IMSG_ERROR, &_kstool_log_msg_table, KSTOOL_LOG_MSG_USAGE);
        return 2;
    }
    log = imsg_start_log(argv[first], 0);
    for (i = first + 1; i < argc; i++)
        imsg_print(IMSG_OK, &_kstool_log_msg_table, KSTOOL_LOG_MSG_LINE, argv[i]);
    imsg_end_log();
    /* A log that cannot be used leaves the lines on the error stream. */
    if (log == stderr) {
        imsg_print(IMSG_ERROR, &_kstool_log_msg_table, KSTOOL_LOG_MSG_NOT_LOGGED, argv[first]);
        return 1;
    }
    imsg_print(IMSG_OK, &_kstool_log_msg_table, KSTOOL_LOG_MSG_LOGGED, argc - first - 1, argv[first]);
    return 0;
}
