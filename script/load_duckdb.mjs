#!/usr/bin/env node
// Brings the day files of several engines into one DuckDB database, a table "transactions" with the names in
// place of their numbers and the engine's name in front.
//
// usage: npm install @duckdb/node-api
//        node load_duckdb.mjs OUT.duckdb ENGINE=DIRECTORY...     (ENGINE: any name without / and =)
//
// Each file is written out by sqlite3, as many at a time as there are processors, and DuckDB reads what was
// written in parallel. Day files can be read while their engine records; run it again for what has come since.

import { DuckDBInstance } from '@duckdb/node-api';
import { spawn } from 'node:child_process';
import { createWriteStream } from 'node:fs';
import { mkdtemp, readdir, rm, stat } from 'node:fs/promises';
import { availableParallelism, tmpdir } from 'node:os';
import { join } from 'node:path';
import { pipeline } from 'node:stream/promises';

const select = `SELECT t.id, time, t.response_time, client, client_port, server, server_port, methods.name, hosts.name,
    status, types.name, t.body_bytes, in_ranges, content, valid_page, entry_point, target
    FROM transactions t JOIN methods ON methods.id = t.method JOIN hosts ON hosts.id = t.host
    JOIN types ON types.id = t.type`;
const columns = `id BIGINT, time BIGINT, response_time BIGINT, client UINTEGER, client_port USMALLINT,
    server UINTEGER, server_port USMALLINT, method VARCHAR, host VARCHAR, status USMALLINT, type VARCHAR,
    body_bytes BIGINT, in_ranges BOOLEAN, content BOOLEAN, valid_page BOOLEAN, entry_point BOOLEAN,
    target VARCHAR`;
const columnTypes = `{${columns.replace(/(\w+) ([A-Z]+)/g, '$1: \'$2\'')}}`;

async function write({ from: file, to: path, known }) {
    const sqlite = spawn('sqlite3', ['-readonly', '-csv', file, `${select} WHERE t.id > ${known}`],
                         { stdio: ['ignore', 'pipe', 'inherit'] });
    const ended = new Promise((resolve, reject) =>
        sqlite.on('error', reject).on('close', status => status ? reject(new Error(`${file}: sqlite3 ended with ${status}`)) : resolve()));
    await Promise.all([pipeline(sqlite.stdout, createWriteStream(path)), ended]);
}

const [output, ...engines] = process.argv.slice(2);
if (engines.length === 0 || engines.some(each => !/^[^/=]+=./.test(each))) {
    console.error('usage: load_duckdb.mjs OUT.duckdb ENGINE=DIRECTORY...');
    process.exit(2);
}
const scratch = await mkdtemp(join(tmpdir(), 'kp-load-'));
try {
    const begun = performance.now();
    const connection = await (await DuckDBInstance.create(output)).connect();
    const answer = async sql => (await (await connection.run(sql)).getRows());
    await connection.run(`CREATE TABLE IF NOT EXISTS transactions (engine VARCHAR, day VARCHAR, ${columns})`);
    const known = new Map((await answer('SELECT engine, day, max(id) FROM transactions GROUP BY ALL'))
        .map(([engine, day, id]) => [`${engine}=${day}`, id]));
    const files = [];
    for (const each of engines) {
        const [name, directory] = each.split(/=(.*)/s);
        for (const file of await readdir(directory)) {
            const day = /^(\d{4}-\d\d-\d\d)\.sqlite$/.exec(file)?.[1];
            if (!day || (await stat(join(directory, file))).size === 0)
                continue;
            files.push({ from: join(directory, file), to: join(scratch, `${name}=${day}.csv`),
                         known: known.get(`${name}=${day}`) ?? 0 });
        }
    }
    if (files.length === 0)
        throw new Error('there is no day file in any of the directories');
    const waiting = [...files];
    const worker = async () => {
        for (let file = waiting.pop(); file; file = waiting.pop())
            await write(file);
    };
    await Promise.all(Array.from({ length: availableParallelism() }, worker));
    const written = performance.now();
    const sizes = await Promise.all(files.map(async file => (await stat(file.to)).size));
    const changed = files.filter((_, i) => sizes[i] !== 0).map(file => `'${file.to}'`);
    if (changed.length !== 0) {
        await connection.run(`INSERT INTO transactions
            SELECT regexp_extract(filename, '([^/=]*)=[^/]*$', 1), regexp_extract(filename, '=([^/]*).csv$', 1),
                   * EXCLUDE filename
            FROM read_csv([${changed.join(', ')}], columns = ${columnTypes}, header = false, quote = '"',
                          escape = '"', nullstr = '', filename = true)`);
    }
    await connection.run('CHECKPOINT');
    const loaded = performance.now();
    const [[rows]] = await answer('SELECT count(*) FROM transactions');
    await answer('SELECT host, count(*) n FROM transactions GROUP BY host ORDER BY n DESC LIMIT 10');
    const asked = performance.now();
    const seconds = (from, to) => ((to - from) / 1000).toFixed(2);
    console.log(`${files.length} day files, ${rows} rows: written out in ${seconds(begun, written)} s, ` +
                `loaded in ${seconds(written, loaded)} s, top hosts of all in ${seconds(loaded, asked)} s`);
} finally {
    await rm(scratch, { recursive: true });
}
