#!/usr/bin/env bash
# Builds the reference, or the manual pages of the functions, from the headers and documents.
# docs/make_reference.sh html|man FOLDER [strict]
#
# With `strict` a warning is an error, and everything that others write code against must be
# documented. Packages are built without it, since another version of Doxygen may warn of more.
set -euo pipefail

kind=$1 strictness=${3:-}
ROVA_DOCS_FOLDER=$(realpath --canonicalize-missing "$2")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
ROVA_VERSION=$(sed -n 's/^#define ROVA_VERSION_[A-Z]* //p' \
    libs/rova_common/core/include/public/rova_version.h | paste -sd .)
ROVA_DOCS_WARN_AS_ERROR=NO
[[ ! $strictness ]] || ROVA_DOCS_WARN_AS_ERROR=FAIL_ON_WARNINGS
export ROVA_DOCS_FOLDER ROVA_VERSION ROVA_DOCS_WARN_AS_ERROR

# run_doxygen SUFFIX: runs it into an empty folder.
run_doxygen() {
    rm -rf "$ROVA_DOCS_FOLDER"
    mkdir -p "$ROVA_DOCS_FOLDER"
    doxygen "docs/Doxyfile$1"
}

case $kind in
    html)
        # This is only for its warnings; the next run replaces its pages.
        [[ ! $strictness ]] || run_doxygen .strict
        run_doxygen ''
        # Doxygen does not warn of a link whose text is broken across lines, which spoils the page.
        if [[ $strictness ]] &&
            grep -rE --include='*.html' '@(ref|section) ' "$ROVA_DOCS_FOLDER" >&2
        then
            printf 'These pages contain commands of Doxygen that it did not understand.\n' >&2
            exit 1
        fi
        ;;
    man)
        run_doxygen .man
        docs/man_pages.py "$ROVA_DOCS_FOLDER"
        ;;
esac
