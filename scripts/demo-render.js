// Renders a vthosts reply (JSON on standard input) as text for a person:
//   node scripts/demo-render.js profile|repositories|ssh-keys|pull-requests|conversation
// and, for the demonstration's own use, writes a pull request record for later requests:
//   node scripts/demo-render.js pick NUMBER < pull-requests reply
//   node scripts/demo-render.js record < conversation reply (the updated record, with its id)
// and tells, without showing any secret, how a token file changed from an earlier copy:
//   node scripts/demo-render.js token-change EARLIER-COPY < token file
"use strict";

const fs = require("fs");
const [kind, ...rest] = process.argv.slice(2);
const reply = JSON.parse(fs.readFileSync(0, "utf8"));
const out = [];
const say = (text = "") => out.push(text);
const pad = (text, width) => String(text).padEnd(width);
const indent = (text, by) =>
    String(text).split("\n").map((line) => " ".repeat(by) + line).join("\n");
// "2024-06-18T05:22:23Z" (or "...+0000", as the Bitbucket records write it) -> "2024-06-18 05:22 UTC"
const when = (iso) =>
    iso ? iso.replace("T", " ").replace(/:\d\d(Z|\+0000)$/, " UTC") : "(no date)";
// The content of a comment that was deleted after it was answered.
const kDeleted = "\u0004\u0005\u0006";
// A comment and, indented below it, its answers.
const sayComment = (comment, depth) => {
    const pad = " ".repeat(2 + 4 * depth);
    if (comment.content === kDeleted) {
        say(`${pad}${when(comment.date)}  (a comment by ${comment.author}, deleted; its answers stay)`);
    } else {
        say(`${pad}${when(comment.date)}  ${comment.author} ${depth ? "answered" : "commented"}:`);
        say(indent(comment.content ?? "", 6 + 4 * depth));
    }
    for (const answer of comment.comments || []) sayComment(answer, depth + 1);
};

if (reply.error) {
    say(`  error: ${reply.error.userInfo?.description ?? JSON.stringify(reply.error)}`);
} else if (kind === "profile") {
    const p = reply.profile;
    const rows = [["Member since", p.createdAt], ["E-mail", p.email], ["Location", p.location],
                  ["Company", p.company], ["Bio", p.bio], ["Profile", p.profileUrl],
                  ["Website", p.websiteUrl],
                  // Bitbucket names no organizations in a profile.
                  ["Organizations", p.organizations === undefined ? undefined
                                    : (p.organizations || "(none)").split("\n").join(", ")]];
    for (const [label, value] of rows) {
        if (value) say(`  ${pad(label, 15)}${value}`);
    }
} else if (kind === "repositories") {
    for (const [login, owner] of Object.entries(reply.repositories)) {
        say(`  ${login}${owner.name ? ` (${owner.name})` : ""}`);
        if (owner.namespaces) {
            say(`    may create repositories in: ${owner.namespaces.map((n) => n.name).join(", ")}`);
        }
        for (const r of owner.repositories) {
            // Bitbucket counts no stars or forks.
            const facts = [r.private ? "private" : "public",
                           ...(r.starsCount === undefined ? [] : [`★ ${r.starsCount}`]),
                           ...(r.forksCount === undefined ? [] : [`forks ${r.forksCount}`])]
                              .join("  ");
            say(`    ${pad(r.name, 17)}${pad(facts, 28)}${r.description ?? ""}`);
            say(`    ${" ".repeat(17)}${r.updatedAt ?? ""}${r.parent ? ` · ${r.parent}` : ""}`);
            say(`    ${" ".repeat(17)}${(r.urls || []).join("  ")}`);
        }
    }
} else if (kind === "ssh-keys") {
    for (const k of reply.keys) {
        // Keys listed under an OAuth token carry no id on Bitbucket.
        say(`  ${pad(k.title, 18)}MD5 ${k.fingerprint}  added ${k.createdAt}` +
            (k.id === undefined ? "" : `  (id ${k.id})`));
    }
} else if (kind === "pull-requests") {
    for (const pr of reply.pullRequests) {
        say(`  #${pr.number}  ${pad(pr.title, 40)} by ${pad(pr.author, 15)} ${when(pr.date)}`);
        say(`        ${pr.baseReference} ← ${pr.headReference}`);
    }
} else if (kind === "conversation") {
    const [pr, description, ...items] = reply.conversation;
    const merge = ["can be merged", "has conflicts", "mergeability not known yet"][pr.mergeable];
    say(`  #${pr.number} ${pr.title ?? ""}  ${pr.webUrl}`);
    say(`  ${pr.merged ? "merged" : merge}; you may${pr.editable ? "" : " not"} edit, close and merge`);
    // Bitbucket's pull requests have neither assignees nor labels.
    if (pr.assignees) say(`  assignees: ${pr.assignees.map((a) => a.author).join(", ") || "none"}`);
    if (pr.labels) say(`  labels:    ${pr.labels.map((l) => `${l.name} (#${l.color})`).join(", ") || "none"}`);
    say();
    say(`  ${when(description.date)}  ${description.author ?? "the author"} opened it:`);
    say(indent(description.content ?? "", 6));
    for (const item of items) {
        if (item === true) {
            say();
            say("  (you may comment)");
        } else if (item.$class === "VTPullRequestComment") {
            sayComment(item, 0);
        } else if (item.$class === "VTPullRequestCommits") {
            const commits = item.commits || [];
            const who = commits[0]?.author ?? "someone without an account";
            say(`  ${when(commits[0]?.date)}  ${who} added ${commits.length} commit${commits.length === 1 ? "" : "s"}:`);
            for (const c of commits) say(`      ${c.oid.slice(0, 7)} ${c.message}`);
        }
    }
} else if (kind === "pick") {
    const [number] = rest;
    const pr = reply.pullRequests.find((candidate) => String(candidate.number) === number);
    if (!pr) {
        console.error(`demo: pull request #${number} is not listed`);
        process.exit(1);
    }
    say(JSON.stringify(pr));
} else if (kind === "record") {
    say(JSON.stringify(reply.conversation[0]));
} else if (kind === "token-change") {
    const earlier = JSON.parse(fs.readFileSync(rest[0], "utf8"));
    const secret = (key) => reply[key] === undefined ? "none"
        : reply[key] === earlier[key] ? "unchanged" : `renewed (${reply[key].length} characters, not shown)`;
    say(`  the token file now holds: token type ${reply.token_type}; access token ${secret("access_token")}; ` +
        `refresh token ${secret("refresh_token")}` +
        (reply.expires_in === undefined ? "" : `; expires in ${reply.expires_in} s`));
} else {
    console.error(`demo-render: unknown kind '${kind}'`);
    process.exit(2);
}
console.log(out.join("\n"));
