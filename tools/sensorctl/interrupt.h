// Ctrl-C and termination requests: a flag that every waiting loop checks, so that frames are released
// and the clients de-initialised before the process ends.
#ifndef SENSORCTL_INTERRUPT_H
#define SENSORCTL_INTERRUPT_H

namespace sensorctl {

// Installs the handlers for SIGINT and SIGTERM (a second signal ends the process at once) and ignores
// SIGPIPE, so that a closed output pipe shows as a failed write.
void installInterruptHandlers();
bool interrupted();
// For tests of the loops and for ending a run from inside the tool.
void requestStop();

}  // namespace sensorctl

#endif  // SENSORCTL_INTERRUPT_H
