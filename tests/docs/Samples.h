// What the samples of the documents take for granted.
#pragma once

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;

enum : unsigned { ShopStore = 100, SHOP_SOLD_OUT = 1, SHOP_CLOSED = 2 };

extern const wchar_t* name;
extern const unsigned code;
extern const TQString format;
extern const TQTextFile file;
extern int target;

void CloseFiles();
void LookAround();
void OpenFiles();
void OpenSettings();
void Work();
void Check(int target);
int TargetIn(const BYTEBuf& data);
