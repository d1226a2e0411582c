// The wiring of the layers: the one source that knows every layer.  A lower
// layer that needs a service of a higher one declares a table of procedures
// in its internal header; this source fills it, and the lower layer asks for
// that on its first use of the table.
#include "imsg_internal.h"
#include "imsg_log_internal.h"
#include "ks/clp.h"
#include "ks/date.h"
#include "ks/ks_product.h"
#include "ks/pfm.h"

namespace {

void log_command(const char *app_name)
{
    clp_log_cl_args(app_name, 0, nullptr);
}

char *time_stamp(time_t now)
{
    return date_fmt_token_general(now, 0, 0, 0, 0);
}

// Runs work under a clean-up record of the fault manager; an unwind that
// crosses it runs undo and is passed on outward.
void run_guarded(void (*work)(void *arg), void (*undo)(void *arg), void *arg)
{
    pfm_cleanup_t rec;
    if (PFM_CLEANUP_START(&rec, 0) == 0) {
        work(arg);
        pfm_cleanup_rls(&rec);
        return;
    }
    undo(arg);
    pfm_raise(rec.value);
}

} // namespace

namespace ks {

void imsg_wire_services(imsg_services *services)
{
    services->log_command = log_command;
    services->time_stamp = time_stamp;
    services->no_bold = ks_no_bold;
    services->force_gui = ks_force_gui;
    services->web_gui = ks_web_gui;
    services->assert_fail = pfm_assert_fail;
    services->on_exit = pfm_on_exit;
    services->raise = pfm_raise;
    services->run_guarded = run_guarded;
    services->reopen_daemon_log = imsg_reopen_daemon_log_when_due;
    services->drain_daemon_pipes = imsg_drain_daemon_pipes;
}

} // namespace ks
