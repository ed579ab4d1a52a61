// The server code the demo's emulator starts with: two entries an application runs.

// Adds two numbers.
function add(args) {
  return { sum: args.a + args.b };
}

// Keeps a note in the caller's own bucket and says how many notes the caller has.
function keepNote(args, context) {
  jov.saveObject("/users/me/buckets/notes", { text: args.text });
  var notes = jov.query("/users/me/buckets/notes", { type: "all" });
  return { owner: context.userID, notes: notes.length };
}
