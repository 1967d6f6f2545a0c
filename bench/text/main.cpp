#include "text/Cases.h"

int main(int argc, char** argv) {
    using namespace Quellan::Corvel::Bench;
    Contest contest;
    AddNumbers(contest);
    AddPieces(contest);
    AddSearches(contest);
    AddEscapes(contest);
    AddUnicode(contest);
    return contest.Run(argc, argv);
}
