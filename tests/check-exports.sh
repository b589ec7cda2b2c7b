#!/bin/sh
# Fails when the shared library exports a symbol outside the tarvik namespace. The test is made on the
# mangled names, where the namespace is a fixed prefix (the demangled form puts a template's return type
# first): _ZN6tarvik / _ZNK6tarvik (and the ref-qualified forms) are tarvik's functions and variables;
# _ZTV, _ZTI, _ZTS, _ZTT and _ZTC its classes' vtables, typeinfo and VTTs; _ZTh, _ZTv and _ZTc their
# thunks; _ZGV, _ZTH and _ZTW the guard and thread_local helpers of its variables. _init and _fini are
# accepted by name: some toolchains' start-up files export them from every shared object for the dynamic
# loader to call. A static inside a function (_ZZ..., "tarvik::f()::x") belongs to the function, not to the
# interface, and is refused. Offenders are listed demangled (nm -C).
set -eu
lib=${1:?usage: check-exports.sh libtarvik.so}
total=$(nm -D --defined-only "$lib" | wc -l)
if [ "$total" -eq 0 ]; then
    echo "no exported symbol found in $lib"
    exit 1
fi
accepted='^_Z(N[KRO]*|T[VISTC]N|Th[0-9n]*_N|Tv[0-9n_]*_N|Tc.*_N|GVN|THN|TWN)6tarvik|^_init$|^_fini$'
foreign=$(nm -D --defined-only "$lib" | awk '{print $NF}' | grep -v -E "$accepted" || true)
if [ -n "$foreign" ]; then
    echo "symbols exported outside namespace tarvik:"
    echo "$foreign" | c++filt
    exit 1
fi
echo "$total exported symbols, all in namespace tarvik"
