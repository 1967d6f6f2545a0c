// The samples of the documents, each whole and checked: a document shows a part of the file of its name.
#pragma once

void AccessControlSample();
void ExceptionsSample();
void FirstProgramSample();
void FormattingSample();
void LoggingSample();
void MemorySample();
void MessagesSample();
void RegistrySample();
void SecretsSample();
void SecurityIdentifiersSample();
void ServicesSample();
void TextSample();
void ThreadPoolSample();
void ThreadsSample();
void TokensSample();
void UnicodeSample();

// Throws with `what` unless `isTrue`.
void Expect(bool isTrue, const wchar_t* what);
