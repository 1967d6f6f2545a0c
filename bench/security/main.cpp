#include "security/Cases.h"

int main(int argc, char** argv) {
    using namespace Quellan::Corvel::Bench;
    Contest contest;
    AddIdentifiers(contest);
    AddAccess(contest);
    return contest.Run(argc, argv);
}
