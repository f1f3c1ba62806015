// Faults of the system below the operating-system layer; the linker puts them in the way
// (--wrap=pthread_create).
#ifndef OSAK_FAULTS_H
#define OSAK_FAULTS_H

namespace osak_faults
{
// While set, no thread can be started.
void SetNoThreads(bool noThreads);

}  // namespace osak_faults

#endif
