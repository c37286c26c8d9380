#!/bin/bash
# usage: recipes-test.sh CASE
# What the recipes of the distributions repeat has to be what the project says. A case is a function
# named Subject.Sentence; CMakeLists.txt registers them all.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)

fail()
{
    echo "FAILED: $*" >&2
    exit 1
}

expect_line()  # FILE LINE
{
    grep -qxFe "$2" "$1" || fail "$1 has no line '$2'"
}

# Options that CMake does not know are passed over in silence.
expect_known_options()  # FILE
{
    local option
    for option in $(grep -o 'PELMAR_[A-Z_]*=' "$1" | tr -d = | sort -u); do
        grep -q "^option($option " CMakeLists.txt || fail "$1 sets $option, which is no option"
    done
}

TheYoctoRecipe.AgreesWithTheProject()
{
    local recipe=contrib/yocto/pelmar_$version.bb checksum
    [[ -f $recipe ]] || fail "there is no $recipe: $(ls contrib/yocto)"
    checksum=$(md5sum <LICENSE)
    expect_line "$recipe" "LIC_FILES_CHKSUM = \"file://LICENSE;md5=${checksum%% *}\""
    expect_known_options "$recipe"
}

TheBuildrootPackage.AgreesWithTheProject()
{
    local package=contrib/buildroot/package/pelmar/pelmar.mk
    expect_line "$package" "PELMAR_VERSION = $version"
    expect_known_options "$package"
    make -sf - BR2_EXTERNAL_PELMAR_PATH="$PWD/contrib/buildroot" <<'END' || fail "make refuses it"
include $(BR2_EXTERNAL_PELMAR_PATH)/external.mk
check:
	test -f $(PELMAR_SITE)/$(PELMAR_LICENSE_FILES)
END
}

TheDebianPackage.AgreesWithTheProject()
{
    local head
    head=$(head -n 1 packaging/debian/changelog)
    [[ $head == "pelmar ($version) "* ]] || fail "packaging/debian/changelog begins with '$head'"
    expect_known_options packaging/debian/rules
}

"$1"
