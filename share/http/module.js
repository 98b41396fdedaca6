// A module's description and every publication, in the order of publication, as its published
// texts say; the search box keeps the publications that contain every word typed.
"use strict";

function examplesOf(list) {
  return list.map((e) => el("div", {}, el("span", { class: "meta" }, e.language), el("pre", {}, e.text)));
}

function publicationOf(p, index) {
  const signature = p.name + "(" + p.parameters.map((q) => q.type + " " + q.name).join(", ") + ")";
  const article = el("article", { class: "publication", id: "publication-" + index },
    el("h3", {}, (p.return.type || "void") + " " + signature),
    el("div", { class: "meta" }, p.className + " · " + p.binding + " · flags " + p.flags,
      p.flags !== 0 ? el("span", { class: "badge" }, " same process only ") : null),
    p.description ? el("div", { class: "text" }, p.description) : null);
  if (p.parameters.length > 0) {
    article.append(table(["parameter", "type", "description"], p.parameters.map((q) =>
      el("tr", {}, el("td", {}, q.name), el("td", {}, q.type), el("td", { class: "text" }, q.description)))));
  }
  if (p.return.name || p.return.description) {
    article.append(el("div", {}, el("b", {}, "returns "), p.return.name + " ",
      el("span", { class: "text" }, p.return.description)));
  }
  article.append(...examplesOf(p.examples));
  article.dataset.search = [p.name, p.description, p.return.name, p.return.description,
    ...p.parameters.flatMap((q) => [q.name, q.description, q.type]),
    ...p.examples.map((e) => e.text)].join("\n").toLowerCase();
  return article;
}

function filter(articles) {
  const words = document.getElementById("search").value.toLowerCase().split(/\s+/).filter((w) => w);
  let shown = 0;
  for (const article of articles) {
    const match = words.every((w) => article.dataset.search.includes(w));
    article.hidden = !match;
    if (match) shown += 1;
  }
  document.getElementById("count").textContent =
    shown === articles.length ? articles.length + " publications" : shown + " of " + articles.length + " publications";
}

(async () => {
  const name = pathName();
  document.title = name;
  document.getElementById("name").textContent = name;
  try {
    const module = await getJson("/api/modules/" + encodeURIComponent(name));
    document.getElementById("description").textContent = module.description;
    document.getElementById("examples").replaceChildren(...examplesOf(module.examples));
    const articles = module.publications.map(publicationOf);
    document.getElementById("publications").replaceChildren(...articles);
    const search = document.getElementById("search");
    search.addEventListener("input", () => filter(articles));
    filter(articles);
  } catch (error) {
    document.getElementById("status").textContent = error.message;
  }
})();
