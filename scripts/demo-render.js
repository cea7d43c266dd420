// Renders a vthosts reply (JSON on standard input) as text for a person:
//   node scripts/demo-render.js profile|repositories|ssh-keys
//   node scripts/demo-render.js pull-requests [LIMIT] | conversation [LIMIT]
//   node scripts/demo-render.js show-thread ID < conversation reply (one thread with its replies)
// and, for the demonstration's own use, writes a pull request record for later requests:
//   node scripts/demo-render.js pick NUMBER < pull-requests reply
//   node scripts/demo-render.js record < conversation reply (the updated record, with its id)
//   node scripts/demo-render.js thread < conversation reply (the id a reply to its first thread takes)
// GitLab's OAuth token, without showing any secret of it:
//   node scripts/demo-render.js token < token file (when it expires)
//   node scripts/demo-render.js renewed OLD-FILE NEW-FILE < reply (what the renewal changed)
// and how any token file changed from an earlier copy, without showing any secret:
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
// "2024-06-18T05:22:23Z" (or with the offset "+0000") -> "2024-06-18 05:22 UTC"
const when = (iso) => {
    const moment = new Date(String(iso).replace(/([+-]\d\d)(\d\d)$/, "$1:$2"));
    return iso && !isNaN(moment) ? `${moment.toISOString().slice(0, 16).replace("T", " ")} UTC`
                                 : iso ?? "(no date)";
};
// Merge requests are "!12" on GitLab, pull requests "#12" elsewhere.
const numbered = (pr) => `${pr.hostType === 2 ? "!" : "#"}${pr.number}`;
const limit = rest.length > 0 ? Number(rest[0]) : Infinity;
const more = (shown, all, what) => {
    if (all > shown) say(`  … and ${all - shown} more ${what} (${all} in all)`);
};
const expiry = (token) => {
    const left = Number(token.created_at) + Number(token.expires_in) - Date.now() / 1000;
    return left > 0 ? `expires in ${Math.round(left)} s` : `expired ${Math.round(-left)} s ago`;
};
// The content of a comment that was deleted after it was answered (Bitbucket).
const kDeleted = "\u0004\u0005\u0006";
const comment = (item, by) => {
    if (item.content === kDeleted) {
        say(`${" ".repeat(by)}${when(item.date)}  (a comment by ${item.author}, deleted; its replies stay)`);
        return;
    }
    say(`${" ".repeat(by)}${when(item.date)}  ${item.author} ${by > 2 ? "replied" : "commented"}:`);
    say(indent(item.content ?? "", by + 4));
};
// A comment with the first two replies at every level of its thread.
const thread = (item, by) => {
    comment(item, by);
    const replies = item.comments || [];
    for (const answer of replies.slice(0, 2)) thread(answer, by + 4);
    if (replies.length > 2) say(`${" ".repeat(by + 4)}… and ${replies.length - 2} more replies in this thread`);
};

if (reply.error) {
    say(`  error: ${reply.error.userInfo?.description ?? JSON.stringify(reply.error)}`);
} else if (kind === "profile") {
    const p = reply.profile;
    const rows = [["Member since", p.createdAt], ["E-mail", p.email], ["Location", p.location],
                  ["Company", p.company], ["Bio", p.bio], ["Profile", p.profileUrl],
                  ["Website", p.websiteUrl],
                  ["Organizations", p.organizations && p.organizations.split("\n").join(", ")]];
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
    const width = Math.max(16, ...reply.keys.map((k) => k.title.length)) + 2;
    for (const k of reply.keys) {
        // Keys listed under an OAuth token carry no id on Bitbucket.
        say(`  ${pad(k.title, width)}MD5 ${k.fingerprint}  added ${k.createdAt}` +
            (k.id === undefined ? "" : `  (id ${k.id})`));
    }
} else if (kind === "token") {
    say(`  an OAuth token that ${expiry(reply)} (lifetime ${reply.expires_in} s)` +
        `${reply.refresh_token ? ", with a refresh token" : ""}`);
} else if (kind === "renewed") {
    const [before, after] = rest.map((file) => JSON.parse(fs.readFileSync(file, "utf8")));
    say(`  refreshedToken in the reply: ${JSON.stringify(reply.refreshedToken ?? "(none)")}`);
    say(`  the token file now holds ${after.access_token !== before.access_token ? "a new" : "the same"}` +
        ` access token and ${after.refresh_token !== before.refresh_token ? "a new" : "the same"}` +
        ` refresh token; it ${expiry(after)}`);
} else if (kind === "pull-requests") {
    const all = reply.pullRequests;
    for (const pr of all.slice(0, limit)) {
        say(`  ${pad(numbered(pr), 5)} ${pad(pr.title, 40)} by ${pad(pr.author, 15)} ${when(pr.date)}`);
        say(`        ${pr.baseReference} ← ${pr.headReference}`);
    }
    more(Math.min(limit, all.length), all.length, "open");
} else if (kind === "conversation") {
    const [pr, description, ...items] = reply.conversation;
    const merge = ["can be merged", "has conflicts", "mergeability not known yet"][pr.mergeable];
    say(`  ${numbered(pr)} ${pr.title ?? ""}  ${pr.webUrl}`);
    say(`  ${pr.merged ? "merged" : merge}; you may${pr.editable ? "" : " not"} edit, close and merge`);
    // Bitbucket's pull requests have neither assignees nor labels.
    if (pr.assignees) say(`  assignees: ${pr.assignees.map((a) => a.author).join(", ") || "none"}`);
    if (pr.labels) say(`  labels:    ${pr.labels.map((l) => `${l.name} (#${l.color.replace(/^#/, "")})`).join(", ") || "none"}`);
    say();
    say(`  ${when(description.date)}  ${description.author ?? "the author"} opened it:`);
    say(indent(description.content ?? "", 6));
    const timeline = items.filter((item) => item !== true);
    for (const item of timeline.slice(0, limit)) {
        if (item.$class === "VTPullRequestComment") {
            thread(item, 2);
        } else if (item.$class === "VTPullRequestCommits") {
            const commits = item.commits || [];
            const who = commits[0]?.author ?? "someone without an account";
            say(`  ${when(commits[0]?.date)}  ${who} added ${commits.length} commit${commits.length === 1 ? "" : "s"}:`);
            for (const c of commits) say(`      ${c.oid.slice(0, 7)} ${c.message}`);
        }
    }
    more(Math.min(limit, timeline.length), timeline.length, "comments and commit runs");
    if (items[items.length - 1] === true) {
        say();
        say("  (you may comment)");
    }
} else if (kind === "thread" || kind === "show-thread") {
    const threads = reply.conversation.filter(
        (item) => item.$class === "VTPullRequestComment" && item.replyTo && (item.comments || []).length);
    const thread = kind === "thread" ? threads[0] : threads.find((item) => item.replyTo === rest[0]);
    if (!thread) {
        console.error("demo: no thread to answer");
        process.exit(1);
    }
    if (kind === "thread") {
        say(thread.replyTo);
    } else {
        comment(thread, 2);
        const replies = thread.comments;
        if (replies.length > 2) say(`      … ${replies.length - 2} replies …`);
        for (const answer of replies.slice(-2)) comment(answer, 6);
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
