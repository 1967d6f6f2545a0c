#include "core/Cases.h"

int main(int argc, char** argv) {
    using namespace Quellan::Corvel::Bench;
    Contest contest;
    AddExceptions(contest);
    AddFormatting(contest);
    AddConversion(contest);
    return contest.Run(argc, argv);
}
