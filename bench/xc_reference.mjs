// Runs the npm package igc-xc-score on IGC files with the rules that make it
// compute what `kestrix-score --rules plain` computes: its stock FAI rule set
// with multiplier 1 for all three shapes, no rounding of legs or totals, and
// closingDistanceFree 0 (the gap, at most 0.8 km, is always deducted), on
// ellipsoidal distances (hp).
//
// node xc_reference.mjs PACKAGE_DIR FILE.igc...
// prints one tab-separated line per flight and shape:
// flight shape score_km distance_km gap_km optimal seconds tp_times
import fs from 'fs';
import path from 'path';
import { pathToFileURL } from 'url';

const [pkgDir, ...files] = process.argv.slice(2);
if (!pkgDir || files.length === 0) {
    console.error('usage: node xc_reference.mjs PACKAGE_DIR FILE.igc...');
    process.exit(2);
}
const load = (p) => import(pathToFileURL(path.join(pkgDir, 'node_modules', p)).href);
const { solver, scoringRules } = await load('igc-xc-score/index.js');
const IGCParser = (await load('igc-parser/index.js')).default;

const shapes = { od: 'free', tri: 'flat', fai: 'fai' };
const rules = scoringRules.FAI.map((r) => {
    const m = { ...r, multiplier: 1, rounding: (x) => x, closingDistanceFree: 0 };
    delete m.finalRounding;
    return m;
});

for (const file of files) {
    const text = fs.readFileSync(file, 'utf8');
    for (const rule of rules) {
        // The solver marks up the flight it is given: parse afresh each time.
        const flight = IGCParser.parse(text, { lenient: true });
        const t0 = process.hrtime.bigint();
        const it = solver(flight, [rule], { hp: true, noflight: true });
        let r;
        do { r = it.next(); } while (!r.done);
        const seconds = Number(process.hrtime.bigint() - t0) / 1e9;
        const best = r.value;
        const info = best.scoreInfo || {};
        const pts = [];
        if (info.ep) pts.push(info.ep.start);
        for (const p of info.tp || []) pts.push(p);
        if (info.ep) pts.push(info.ep.finish);
        if (info.cp) pts.push(info.cp.in, info.cp.out);
        const times = pts.map((p) => new Date(flight.filtered[p.r].timestamp).toISOString().slice(11, 19));
        console.log([path.basename(file), shapes[rule.code], best.score, info.distance,
            info.cp ? info.cp.d : 0, best.optimal, seconds.toFixed(2), times.join(',')].join('\t'));
    }
}
