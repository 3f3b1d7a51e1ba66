// The list that all pages use: a search as one types, filters with their counts, columns to sort by, pages with jumps.
// What is chosen is in the address, so that a reload or a link shows the same.
import type { ComponentChildren } from 'preact'
import { number } from './format'
import { SIZES, lookOf, queryFor, view, type Column, type Filter, type Look } from './listing'
import { choose, query } from './router'
import { t } from './texts'
import { Button, Empty, SortHead, Table } from './ui'

export interface ShownColumn<T> extends Column<T> {
  label: string
  head?: ((rows: T[]) => ComponentChildren) | undefined // in place of the label, from the rows of the page
  cell: (row: T) => ComponentChildren
  figure?: boolean
  nowrap?: boolean
  rowHead?: boolean
}
export interface ShownFilter<T> extends Filter<T> {
  label: string
}

export const usual = (sort: string, down = false, size: number = SIZES[0]): Look => ({
  q: '',
  filter: '',
  sort,
  down,
  page: 0,
  size,
})

const change = (look: Look, usually: Look, to: Partial<Look>) =>
  choose(queryFor({ ...look, page: 0, ...to }, usually))

// The search and the filters above a list.
export function Tools<T>({
  look,
  usually,
  filters,
  counts,
  children,
}: {
  look: Look
  usually: Look
  filters: readonly ShownFilter<T>[]
  counts: ReadonlyMap<string, number> | null // null while they are unknown
  children?: ComponentChildren
}) {
  const chips = filters.length > 0 ? [{ name: '', label: t('list.all') }, ...filters] : []
  return (
    <div class="tools">
      <input
        type="search"
        aria-label={t('list.search')}
        placeholder={t('list.search')}
        spellcheck={false}
        value={look.q}
        onInput={event => change(look, usually, { q: event.currentTarget.value })}
      />
      {chips.length > 0 && (
        <div class="chips" role="group" aria-label={t('list.filter')}>
          {chips.map(({ name, label }) => (
            <button
              key={name}
              type="button"
              aria-pressed={look.filter === name}
              onClick={() => change(look, usually, { filter: name })}
            >
              {label} {counts && <b>{number(counts.get(name) ?? 0)}</b>}
            </button>
          ))}
        </div>
      )}
      {children}
    </div>
  )
}

// The pages of a list: first, back, any, next, last, and how many rows each has.
export function Pages({
  total,
  page,
  pages,
  look,
  usually,
}: {
  total: number
  page: number
  pages: number
  look: Look
  usually: Look
}) {
  const to = (next: number) => change(look, usually, { page: next })
  const jump = (event: Event) => {
    const wanted = Number((event.currentTarget as HTMLInputElement).value)
    if (Number.isInteger(wanted) && wanted >= 1 && wanted <= pages) to(wanted - 1)
  }
  return (
    <nav class="pager" aria-label={t('page.label')}>
      <span role="status">{t(total === 1 ? 'page.one' : 'page.total', { n: number(total) })}</span>
      {pages > 1 && (
        <>
          <Button label={t('page.first')} onClick={() => to(0)} disabled={page <= 0}>
            «
          </Button>
          <Button onClick={() => to(page - 1)} disabled={page <= 0}>
            {t('page.back')}
          </Button>
          <label class="jump">
            <span class="unseen">{t('page.jump')}</span>
            <input type="number" min={1} max={pages} value={page + 1} onChange={jump} />
            <span>{t('page.of', { pages: number(pages) })}</span>
          </label>
          <Button onClick={() => to(page + 1)} disabled={page >= pages - 1}>
            {t('page.next')}
          </Button>
          <Button label={t('page.last')} onClick={() => to(pages - 1)} disabled={page >= pages - 1}>
            »
          </Button>
        </>
      )}
      {(total > SIZES[0] || look.size !== usually.size) && (
        <label class="jump">
          <span>{t('page.size')}</span>
          <select
            value={String(look.size)}
            onChange={event => change(look, usually, { size: Number(event.currentTarget.value) })}
          >
            {SIZES.map(size => (
              <option key={size} value={String(size)}>
                {size}
              </option>
            ))}
          </select>
        </label>
      )}
    </nav>
  )
}

// The rows of one page as a table whose heads sort.
export function Rows<T>({
  label,
  rows,
  keyOf,
  columns,
  look,
  usually,
  marked,
}: {
  label: string
  rows: T[]
  keyOf: (row: T) => string | number
  columns: readonly ShownColumn<T>[]
  look: Look
  usually: Look
  marked?: ((row: T) => boolean) | undefined
}) {
  return (
    <Table
      label={label}
      heads={columns.map(one =>
        one.head ? (
          one.head(rows)
        ) : one.sort ? (
          <SortHead
            active={look.sort === one.name}
            down={look.down}
            onClick={() =>
              change(look, usually, { sort: one.name, down: look.sort === one.name && !look.down })
            }
          >
            {one.label}
          </SortHead>
        ) : (
          one.label
        ),
      )}
    >
      {rows.map(row => (
        <tr key={keyOf(row)} class={marked?.(row) ? 'changed' : ''}>
          {columns.map(one => {
            const style = [one.figure && 'figure', one.nowrap && 'nowrap'].filter(Boolean).join(' ')
            return one.rowHead ? (
              <th key={one.name} scope="row" class={style}>
                {one.cell(row)}
              </th>
            ) : (
              <td key={one.name} class={style} data-label={one.head ? undefined : one.label}>
                {one.cell(row)}
              </td>
            )
          })}
        </tr>
      ))}
    </Table>
  )
}

export function useList<T>(
  rows: readonly T[],
  textOf: (row: T) => string,
  columns: readonly Column<T>[],
  filters: readonly Filter<T>[],
  usually: Look,
) {
  const look = lookOf(query.value, usually)
  return { look, seen: view(rows, textOf, columns, filters, look) }
}

type ListProps<T> = {
  label: string
  rows: readonly T[]
  textOf: (row: T) => string // what a search looks at
  keyOf: (row: T) => string | number
  columns: readonly ShownColumn<T>[]
  filters?: readonly ShownFilter<T>[]
  usually: Look
  marked?: (row: T) => boolean
  empty: string // what to say of no rows at all
  children?: ComponentChildren // beside the filters
  show?: ((rows: T[]) => ComponentChildren) | undefined // in place of the table
}
export function List<T>({
  label,
  rows,
  textOf,
  keyOf,
  columns,
  filters = [],
  usually,
  marked,
  empty,
  children,
  show,
}: ListProps<T>) {
  const { look, seen } = useList(rows, textOf, columns, filters, usually)
  if (rows.length === 0) return <Empty>{empty}</Empty>
  return (
    <>
      <Tools look={look} usually={usually} filters={filters} counts={seen.counts}>
        {children}
      </Tools>
      {seen.total === 0 ? (
        <Empty>{t('list.nothing')}</Empty>
      ) : show ? (
        show(seen.rows)
      ) : (
        <Rows
          label={label}
          rows={seen.rows}
          keyOf={keyOf}
          columns={columns}
          look={look}
          usually={usually}
          marked={marked}
        />
      )}
      <Pages total={seen.total} page={seen.page} pages={seen.pages} look={look} usually={usually} />
    </>
  )
}
