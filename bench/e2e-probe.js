#!/usr/bin/env node
// Watches one sync of the end-to-end benchmark (bench/e2e) from outside the service.
//
//   e2e-probe.js watch BUS_ADDRESS COUCH_URL COUNT [DOC_ID OLD_REV]
//     Waits for the service process (a pelio-service whose environment holds BUS_ADDRESS) and
//     writes "pid N" to standard error once found. Until the process ends it samples, every 10 ms,
//     user+system CPU time (/proc/PID/stat) and peak resident memory (VmHWM); it polls the device
//     database (the one plm_ database) every 100 ms until it holds COUNT documents or, with
//     DOC_ID, every 20 ms until that document's revision differs from OLD_REV; it fails when the
//     service has ended without that. The end is taken from a process descriptor of the service
//     (pidfd, read by a python3 helper), which wakes the moment it ends; the sampling's 10 ms
//     steps are the fallback. Prints one JSON line: epoch milliseconds of "docs" (the condition
//     met) and "end" (process gone), "cpu_ms", "hwm_kib", "pid".
//   e2e-probe.js ingest COUCH_URL SOURCE_DB TYPE TARGET_DB [COUCH_PID]
//     Raw ingest: the documents of type TYPE from SOURCE_DB, without revisions, gzip-posted into
//     the new TARGET_DB through _bulk_docs in bodies of 1,000 over one kept connection. Prints
//     JSON: "docs" (how many), "seconds" (compression and posting, the reading excluded), "t0"
//     (epoch milliseconds when the posting began, to line the run up with other logs), and with
//     COUCH_PID "db_cpu_ms", the database server's CPU time over the same span.
//   e2e-probe.js warm COUCH_URL COUNT [TYPE]
//     Warms the database server up before anything is measured: COUNT documents posted through
//     _bulk_docs in bodies of 100 and then of 1,000 (the second round gzip-compressed) into a
//     scratch database, which is deleted afterwards. A freshly started PouchDB Server runs its
//     first thousands of writes several tens of percent slower than later ones (its JavaScript is
//     not compiled yet, nor fitted to the documents' shapes); without this the forced sync,
//     measured first, would pay for that and raw ingest, measured later, would not. With TYPE
//     (contact, audio, application) the documents have the shape of the service's documents of
//     that type (the same members, nested alike), for a server warm for the documents it is
//     measured on; otherwise they are small and plain.
//
// Loopback only: COUCH_URL is PouchDB Server of the test stack. Exits 1 with a message on error.
"use strict";
const { spawn } = require("child_process");
const fs = require("fs");
const http = require("http");
const zlib = require("zlib");

const agent = new http.Agent({ keepAlive: true, maxSockets: 1 });
const TICK_MS = 1000 / 100;  // USER_HZ on Linux

function request(url, method, body, headers) {
    return new Promise((resolve, reject) => {
        const req = http.request(url, { method, agent, headers: headers || {} }, res => {
            const chunks = [];
            res.on("data", c => chunks.push(c));
            res.on("end", () => resolve({ status: res.statusCode, body: Buffer.concat(chunks).toString() }));
        });
        req.on("error", reject);
        if (body) req.write(body);
        req.end();
    });
}

async function getJson(url) {
    const r = await request(url, "GET");
    return r.status === 200 ? JSON.parse(r.body) : null;
}

const sleep = ms => new Promise(r => setTimeout(r, ms));

function findService(busAddress) {
    for (const p of fs.readdirSync("/proc")) {
        if (!/^\d+$/.test(p)) continue;
        try {
            if (fs.readFileSync(`/proc/${p}/comm`, "utf8").trim() !== "pelio-service") continue;
            const env = fs.readFileSync(`/proc/${p}/environ`, "utf8").split("\0");
            if (env.includes(`DBUS_SESSION_BUS_ADDRESS=${busAddress}`)) return +p;
        } catch (e) { /* the process went away while we looked */ }
    }
    return 0;
}

// One sample of a live process, or null once it has ended (gone or a zombie).
function sample(pid) {
    try {
        const stat = fs.readFileSync(`/proc/${pid}/stat`, "utf8");
        const f = stat.slice(stat.lastIndexOf(")") + 2).split(" ");
        if (f[0] === "Z" || f[0] === "X") return null;
        const status = fs.readFileSync(`/proc/${pid}/status`, "utf8");
        const hwm = /VmHWM:\s+(\d+)/.exec(status);
        return { cpu_ms: (+f[11] + +f[12]) * TICK_MS, hwm_kib: hwm ? +hwm[1] : 0 };
    } catch (e) {
        return null;
    }
}

// A helper that tells when a process ends, from a pidfd that becomes readable then. It is
// started before the process is looked for (so that its own start-up does not compete with the
// sync) and gets the pid on its standard input: watcher.end(pid) resolves to epoch milliseconds,
// or null when no descriptor could be had (the process already gone, no pidfd on this system).
function exitWatcher() {
    const helper = "import os, select, sys, time\n" +
        "fd = os.pidfd_open(int(sys.stdin.readline()))\n" +
        "select.select([fd], [], [])\n" +
        "print(time.time_ns() // 1000000)\n";
    const py = spawn("python3", ["-c", helper], { stdio: ["pipe", "pipe", "ignore"] });
    const ended = new Promise(resolve => {
        let out = "";
        py.stdout.on("data", d => { out += d; });
        py.on("error", () => resolve(null));
        py.on("close", code => resolve(code === 0 && /^\d+\s*$/.test(out) ? +out : null));
    });
    py.stdin.on("error", () => {});  // a helper that failed to start
    return {
        end(pid) {
            py.stdin.end(`${pid}\n`);
            return ended;
        },
        cancel() { py.kill(); },
    };
}

async function deviceDb(couch) {
    const dbs = await getJson(`${couch}/_all_dbs`);
    const plm = (dbs || []).filter(d => d.startsWith("plm_"));
    return plm.length === 1 ? plm[0] : null;
}

async function watch(busAddress, couch, count, docId, oldRev) {
    const out = { docs: 0, end: 0, cpu_ms: 0, hwm_kib: 0, pid: 0 };
    const deadline = Date.now() + 900 * 1000;
    const watcher = exitWatcher();
    while (!(out.pid = findService(busAddress))) {
        if (Date.now() > deadline) {
            watcher.cancel();
            throw new Error("no service process appeared");
        }
        await sleep(5);
    }
    process.stderr.write(`pid ${out.pid}\n`);
    const exited = watcher.end(out.pid);
    const sampler = (async () => {
        for (let s; (s = sample(out.pid)); await sleep(10)) Object.assign(out, s);
        out.end = Date.now();
    })();
    const poller = (async () => {
        let db = null;
        let found = false;
        // Once the service has ended, one more look decides: the documents are there or will not
        // come.
        for (let lastLook = false; !found && !lastLook && Date.now() < deadline;) {
            lastLook = out.end !== 0;
            db = db || await deviceDb(couch);
            if (db && docId) {
                const doc = await getJson(`${couch}/${db}/${encodeURIComponent(docId)}`);
                found = !!doc && doc._rev !== oldRev;
            } else if (db) {
                const info = await getJson(`${couch}/${db}`);
                found = !!info && info.doc_count >= count;
            }
            // Polling competes with the sync for the database: a forced sync's thousands of
            // documents are counted every 100 ms, one document's revision every 20 ms.
            if (!found) await sleep(docId ? 20 : 100);
        }
        out.docs = found ? Date.now() : Infinity;
    })();
    await Promise.all([sampler, poller]);
    out.end = (await exited) || out.end;
    if (out.docs === Infinity) throw new Error("the documents did not arrive before the service ended");
    console.log(JSON.stringify(out));
}

async function ingest(couch, sourceDb, type, targetDb, couchPid) {
    const all = await getJson(`${couch}/${sourceDb}/_all_docs?include_docs=true`);
    if (!all) throw new Error(`cannot read ${sourceDb}`);
    const docs = all.rows.map(r => r.doc).filter(d => d.type === type);
    docs.forEach(d => delete d._rev);
    const made = await request(`${couch}/${targetDb}`, "PUT");
    if (made.status !== 201) throw new Error(`cannot create ${targetDb}: ${made.body}`);
    const cpu0 = couchPid ? sample(+couchPid) : null;
    const start = process.hrtime.bigint();
    for (let i = 0; i < docs.length; i += 1000) {
        const body = zlib.gzipSync(JSON.stringify({ docs: docs.slice(i, i + 1000) }));
        const r = await request(`${couch}/${targetDb}/_bulk_docs`, "POST", body, {
            "Content-Type": "application/json", "Content-Encoding": "gzip", "Content-Length": body.length });
        if (r.status !== 201) throw new Error(`_bulk_docs answered ${r.status}: ${r.body.slice(0, 200)}`);
    }
    const seconds = Number(process.hrtime.bigint() - start) / 1e9;
    const cpu1 = couchPid ? sample(+couchPid) : null;
    const out = { docs: docs.length, seconds, t0: Date.now() - seconds * 1000 };
    if (cpu0 && cpu1) out.db_cpu_ms = cpu1.cpu_ms - cpu0.cpu_ms;
    console.log(JSON.stringify(out));
}

// Documents shaped as the service composes them for TYPE (members and nesting; the values vary).
function warmDocument(type, n) {
    const stamp = { device: "Warm", doc_number: n % 1000, timestamp: 1700000000000 + n,
                    timestamp_GMT: "2026-01-01 00:00:00", type, version: "0.82" };
    const metaData = {
        contact: () => ({ contact_count_info: { times_contacted: 0 }, displayname: `Warm ${n}`,
                          firstname: "Warm", lastname: `Number${n}`, middlename: "", nickname: "",
                          phone: [{ clientData: `${n}`, default: false, phonetype: "Mobile" }],
                          phoneticname: "", prefix: "", starred: false, suffix: "" }),
        audio: () => ({ album_id: `${n % 50}`, album_title: `Album ${n % 50}`,
                        artist_id: `${n % 20}`, artist_name: `Artist ${n % 20}`,
                        displayname: `warm-${n}.mp3`, genre_id: "1", genre_name: "Rock",
                        title: `Warm ${n}`, uri: "" }),
        application: () => ({ customid: `warm${n}`, name: `Warm ${n}`,
                              packagename: `org.warm.app${n}`, preinstalled: false }),
    }[type];
    if (!metaData) return { _id: `warm-${n}`, type: "warm", meta_data: { name: `Warm ${n}` } };
    return Object.assign({ _id: `warm_${String(n).padStart(8, "0")}` }, stamp,
                         { meta_data: metaData() });
}

async function warm(couch, count, type) {
    const db = `${couch}/bench_warm_up`;
    await request(db, "PUT");
    let n = 0;
    for (const per of [100, 1000]) {
        for (let i = 0; i < count; i += per) {
            const docs = Array.from({ length: Math.min(per, count - i) },
                                    () => warmDocument(type, n++));
            const text = JSON.stringify({ docs });
            // Parts of 100 come as pds-server forwards them, bodies of 1,000 as raw ingest posts
            // them.
            const body = per === 1000 ? zlib.gzipSync(text) : text;
            const headers = { "Content-Type": "application/json",
                              "Content-Length": Buffer.byteLength(body) };
            if (per === 1000) headers["Content-Encoding"] = "gzip";
            const r = await request(`${db}/_bulk_docs`, "POST", body, headers);
            if (r.status !== 201) throw new Error(`warm-up _bulk_docs answered ${r.status}`);
        }
    }
    await request(db, "DELETE");
}

const [mode, ...args] = process.argv.slice(2);
const run = mode === "watch" ? watch(args[0], args[1], +args[2], args[3], args[4])
    : mode === "ingest" ? ingest(...args)
    : mode === "warm" ? warm(args[0], +args[1], args[2])
    : Promise.reject(new Error("usage: e2e-probe.js watch|ingest|warm ..."));
run.then(() => { agent.destroy(); }, e => { console.error(`e2e-probe: ${e.message}`); process.exit(1); });
