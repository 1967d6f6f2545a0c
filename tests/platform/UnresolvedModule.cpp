// A module that needs a function nobody has.
extern "C" int NobodyHasThisFunction();

extern "C" int UseIt();

extern "C" int UseIt() {
    return NobodyHasThisFunction();
}
