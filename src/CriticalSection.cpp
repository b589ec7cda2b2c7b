#include "tarvik/CriticalSection.h"

#include "CriticalSectionImpl.h"
#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik {

static_assert(sizeof(CriticalSection) >= critical_section_impl::kStorageSize);

CriticalSection::CriticalSection() { critical_section_impl::init(storage_); }

CriticalSection::~CriticalSection() { critical_section_impl::destroy(storage_); }

// The platform half holds the lock; the analysis sees the annotations of the declarations.
void CriticalSection::enter() TARVIK_NO_THREAD_SAFETY_ANALYSIS { critical_section_impl::enter(storage_); }

void CriticalSection::leave() TARVIK_NO_THREAD_SAFETY_ANALYSIS { critical_section_impl::leave(storage_); }

bool CriticalSection::try_enter() TARVIK_NO_THREAD_SAFETY_ANALYSIS { return critical_section_impl::try_enter(storage_); }

}  // namespace tarvik
