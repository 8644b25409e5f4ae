#!/bin/sh
# Makes the signed-file fixtures from nothing, with openssl and osslsigncode:
#
#   make-fixtures.sh OUT_DIR SAMPLE_EXE OPENSSL OSSLSIGNCODE
#
# In OUT_DIR (keys and CA bookkeeping stay in OUT_DIR/work):
#   root.cer              test root CA (the tests trust it for their run)
#   other-root.cer        a second root that nobody trusts
#   signer.cer            code-signing leaf under root, valid 2020-2045
#   expired.cer           code-signing leaf under root, valid 2020 only
#   untrusted.cer         code-signing leaf under other-root, with the serial
#                         number of signer (only the issuer tells them apart)
#   unsigned.exe          SAMPLE_EXE as built
#   signed.exe            signed by signer
#   expired.exe           signed by expired
#   untrusted.exe         signed by untrusted
#   tampered.exe          signed.exe with one byte of its DOS stub changed
#   nested.exe            signed.exe with a nested second signature by expired
#   twoentries.exe        signed.exe whose certificate table has a second entry
#                         (the signature of untrusted.exe)
# Signatures carry the signer and its root, so the chain of a signer read from
# a file always ends in a root: trusted (root, once a test trusts it) or not
# (other-root). All dates are fixed, so names, serial numbers and expiry dates
# are known.
# Only options that osslsigncode 2.5 already has are used.
set -eu

out=$1
sample=$2
openssl=$3
osslsigncode=$4

work=$out/work
rm -rf "$work"
mkdir -p "$work"
cd "$work"

cat > ca.cnf <<'CNF'
[ ca ]
default_ca = qx
[ qx ]
database = $ENV::QX_CA_DATABASE
new_certs_dir = .
serial = serial
default_md = sha256
policy = anything
unique_subject = no
email_in_dn = no
[ anything ]
commonName = supplied
organizationName = optional
[ root_ext ]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[ leaf_ext ]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = codeSigning
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
CNF

# certificate NAME SERIAL COMMON-NAME NOT-BEFORE NOT-AFTER ISSUER|self
certificate() {
    "$openssl" req -new -newkey rsa:2048 -nodes -keyout "$1.key" -out "$1.csr" \
        -subj "/CN=$3/O=QXCommon Tests" 2>/dev/null
    echo "$2" > serial
    # One database per issuer: serial numbers are unique per issuer only.
    if [ "$6" = self ]; then
        QX_CA_DATABASE=$1.index
        signing="-selfsign -keyfile $1.key -extensions root_ext"
    else
        QX_CA_DATABASE=$6.index
        signing="-cert $6.pem -keyfile $6.key -extensions leaf_ext"
    fi
    export QX_CA_DATABASE
    [ -f "$QX_CA_DATABASE" ] || : > "$QX_CA_DATABASE"
    # shellcheck disable=SC2086
    "$openssl" ca -batch -config ca.cnf -notext $signing -in "$1.csr" -out "$1.pem" \
        -startdate "$4" -enddate "$5" 2>/dev/null
    "$openssl" x509 -in "$1.pem" -outform DER -out "$out/$1.cer"
    # What a signature by this certificate carries: the certificate and its issuer.
    if [ "$6" != self ]; then
        cat "$1.pem" "$6.pem" > "$1-chain.pem"
    fi
}

certificate root 1000 "QXCommon Test Root" 20200101000000Z 20451231235959Z self
certificate other-root 2000 "QXCommon Other Root" 20200101000000Z 20451231235959Z self
certificate signer 1001 "QXCommon Test Signer" 20200101000000Z 20451231235959Z root
certificate expired 1002 "QXCommon Expired Signer" 20200101000000Z 20210101000000Z root
certificate untrusted 1001 "QXCommon Untrusted Signer" 20200101000000Z 20451231235959Z other-root

cp "$sample" "$out/unsigned.exe"

# sign NAME IN OUT [more osslsigncode options]
sign() {
    name=$1 in=$2 target=$3
    shift 3
    rm -f "$target"
    "$osslsigncode" sign "$@" -certs "$name-chain.pem" -key "$name.key" -h sha256 -n "QXCommon sample" \
        -in "$in" -out "$target" >/dev/null
}

sign signer "$out/unsigned.exe" "$out/signed.exe"
sign expired "$out/unsigned.exe" "$out/expired.exe"
sign untrusted "$out/unsigned.exe" "$out/untrusted.exe"
sign expired "$out/signed.exe" "$out/nested.exe" -nest

# Little-endian reads and writes at byte offsets.
u16() { od -An -tu2 -j "$2" -N2 "$1" | tr -d ' '; }
u32() { od -An -tu4 -j "$2" -N4 "$1" | tr -d ' '; }
le32() {
    # shellcheck disable=SC2059
    printf "$(printf '\\%03o\\%03o\\%03o\\%03o' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)))"
}
poke() { dd of="$1" bs=1 seek="$2" conv=notrunc 2>/dev/null; }
size() { wc -c < "$1" | tr -d ' '; }

# Offset of the security data directory (file offset and size of the
# certificate table) in the optional header, PE32 or PE32+.
security_directory() {
    nt=$(u32 "$1" 60)
    if [ "$(u16 "$1" $((nt + 24)))" = 523 ]; then
        echo $((nt + 24 + 144))
    else
        echo $((nt + 24 + 128))
    fi
}

# One byte of the DOS stub (hashed by the signature) changed after signing.
cp "$out/signed.exe" "$out/tampered.exe"
byte=$(od -An -tu1 -j 80 -N1 "$out/tampered.exe" | tr -d ' ')
# shellcheck disable=SC2059
printf "$(printf '\\%03o' $((byte ^ 1)))" | poke "$out/tampered.exe" 80

# A second certificate-table entry: the first entry of untrusted.exe, padded
# to eight bytes, appended to signed.exe's table, which ends the file.
cp "$out/signed.exe" twoentries.exe
dir=$(security_directory twoentries.exe)
table=$(u32 twoentries.exe "$dir")
tableSize=$(u32 twoentries.exe $((dir + 4)))
if [ $((table + tableSize)) != "$(size twoentries.exe)" ] || [ $((tableSize % 8)) != 0 ]; then
    echo "make-fixtures: the certificate table of signed.exe does not end the file" >&2
    exit 1
fi
srcDir=$(security_directory "$out/untrusted.exe")
srcTable=$(u32 "$out/untrusted.exe" "$srcDir")
entry=$(u32 "$out/untrusted.exe" "$srcTable")
padded=$(((entry + 7) / 8 * 8))
dd if="$out/untrusted.exe" bs=1 skip="$srcTable" count="$entry" 2>/dev/null >> twoentries.exe
head -c $((padded - entry)) /dev/zero >> twoentries.exe
le32 $((tableSize + padded)) | poke twoentries.exe $((dir + 4))
# The image checksum, as the system computes it: 16-bit words summed with the
# carry folded in, the checksum field itself left out, plus the file length.
field=$(($(u32 twoentries.exe 60) + 24 + 64))
checksum=$(od -An -tu2 -v twoentries.exe | awk -v skip=$((field / 2)) -v bytes="$(size twoentries.exe)" '
    { for (i = 1; i <= NF; i++) { if (n != skip && n != skip + 1) { s += $i; s = s % 65536 + int(s / 65536) } n++ } }
    END { s = s % 65536 + int(s / 65536); print s + bytes }')
le32 "$checksum" | poke twoentries.exe "$field"
mv twoentries.exe "$out/twoentries.exe"
