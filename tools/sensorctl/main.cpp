// sensorctl: command-line tool over the sensor IPC client library.
#include "tool.h"

int main(int argc, char** argv) {
    return sensorctl::runTool(argc, argv);
}
