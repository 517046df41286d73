// hopperd: receives uploads from the upload tool and relays them along the
// chain of daemons.
#include "hopperd/DaemonApplication.h"

int main(int argc, char** argv) {
  DaemonApplication daemon;
  return daemon.start(argc, argv);
}
