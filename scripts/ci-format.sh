#!/usr/bin/env bash
# Every C++ file of the project as .clang-format lays it out: names each file
# that is not, with what would change, and fails. To fix:
#   git ls-files '*.cpp' '*.h' | xargs clang-format -i
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
echo "ci-format: every C++ file is formatted"
