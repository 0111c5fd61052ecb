// kr-log: the platform's log service, and its client modes. See
// docs/log.md; everything is in process.h.
#include "platform/log/process.h"

int main(int argc, char** argv) { return kr::logsvc::logMain(argc, argv); }
