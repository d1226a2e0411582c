// Internal: included by tests/imsg_test.cpp and the imsg*.cpp that define these; never installed.
// Entry points of the message layer that only its tests call.
#ifndef KS_IMSG_TESTING_H
#define KS_IMSG_TESTING_H

#include "imsg_internal.h"

namespace ks {

// How many times a catalogue was opened with catopen, and the name held by a
// cache slot (0 or 1; null if none).
unsigned imsg_catalog_open_count_for_testing();
const char *imsg_catalog_slot_name_for_testing(int slot);
// The type of the message printed last.
int imsg_current_type_for_testing();
// Whether OTTERMERE_ENABLE_ATE_MESSAGES switched message tagging on.
bool imsg_tagging_enabled_for_testing();
// Replaces the service table (wiring it first, so that a later use does not
// wire it again); returns the table that was in force.
imsg_services imsg_set_services_for_testing(const imsg_services &services);

} // namespace ks

#endif
