// The sensorctl program: parser, global options, the chosen command, and exit statuses.
#ifndef SENSORCTL_TOOL_H
#define SENSORCTL_TOOL_H

namespace sensorctl {

int runTool(int argc, char** argv);

}  // namespace sensorctl

#endif  // SENSORCTL_TOOL_H
