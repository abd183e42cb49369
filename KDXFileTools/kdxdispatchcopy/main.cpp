#include "KDXFileTools/kdxdispatchcopy/FrontEnd.h"
#include "platform/Memory.h"
#include "platform/Process.h"

int main(int argc, char* argv[]) {
  platform::shareOneHeap();
  platform::keepOutputOutOfFiles();
  platform::makeStandardOutputUnbuffered();
  platform::letWritesFailInsteadOfSignals();
  platform::endProcessWhenMemoryRunsOut();
  platform::raiseDiskPriority();
  runFrontEnd(argc, argv);
}
