// An update from beginning to end: the files, the supervisor, the journal and the report, in their order.
//
//   verifying   the list and the files agree              refused, nothing has happened
//   copying     every new file lies beside its place      refused, nothing is left
//   stopping    the supervisor has stopped its services   refused, when it did not hear the request
//   installing  every new file is in its place            rolled back
//   restarting  the supervisor runs anew, and answers     rolled back
//
// Everything runs on the caller's thread and takes as long as it takes: two minutes at most when all goes wrong.
#pragma once

#include <string>

namespace gateway::update {

// Looks whether an update has appeared, and carries it out. False when there was none. How it ended is the state.
bool carry_out_update(const std::string& root);

// Finishes or undoes what an update before this process has left unfinished. Does nothing when there is none.
void recover(const std::string& root);

}  // namespace gateway::update
