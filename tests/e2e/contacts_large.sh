#!/usr/bin/env bash
# An address book of 5,000 cards syncs completely: 5,000 documents on the server, one shadow row
# per contact, every row confirmed.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
e2e_setup
book=$XDG_DATA_HOME/contacts/default
total=5000

# 50 files of 100 cards each (a file may hold several cards).
node -e '
    const fs = require("fs");
    const [dir, total] = [process.argv[1], +process.argv[2]];
    for (let f = 0; f < total / 100; ++f) {
        let text = "";
        for (let i = f * 100; i < (f + 1) * 100; ++i) {
            text += `BEGIN:VCARD\r\nVERSION:3.0\r\nUID:bulk-${i}\r\nFN:Person ${i}\r\n` +
                `N:Number${i};Person;;;\r\nTEL;TYPE=CELL:+1555${String(i).padStart(6, "0")}\r\nEND:VCARD\r\n`;
        }
        fs.writeFileSync(`${dir}/bulk-${f}.vcf`, text);
    }' "$book" "$total"

e2e_configure
start=$(date +%s)
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
e2e_wait_service_end 600
echo "# forced sync of $total cards took $(( $(date +%s) - start )) s"

count=$(e2e_doc_count contact)
[ "$count" = "$total" ] || e2e_fail "server holds $count documents, not $total"
e2e_ok "$total documents on the server"

shadow=$XDG_DATA_HOME/com.quorvin.plmsvc/shared/trusted/databases/.orvane.db
read -r rows distinct synced < <(sqlite3 -separator ' ' "$shadow" \
    "SELECT COUNT(*), COUNT(DISTINCT _id), SUM(dirty = 4) FROM contacts")
[ "$rows" = "$total" ] && [ "$distinct" = "$total" ] && [ "$synced" = "$total" ] \
    || e2e_fail "shadow table: rows=$rows distinct=$distinct synced=$synced"
e2e_ok "one confirmed shadow row per contact, no duplicates"
"$PELIOCTL" db | grep -q "contacts: rows=$total dirty\[4\]=$total" || e2e_fail "pelioctl db: $("$PELIOCTL" db)"
e2e_ok "pelioctl db agrees"
