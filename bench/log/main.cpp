#include "log/Cases.h"

int main(int argc, char** argv) {
    using namespace Quellan::Corvel::Bench;
    if (RunWritingProcess(argc, argv)) return 0;
    Contest contest;
    AddRecords(contest);
    return contest.Run(argc, argv);
}
