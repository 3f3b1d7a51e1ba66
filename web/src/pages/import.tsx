// OpenVPN profiles from files: each is judged by the appliance first, what is missing is asked for, then it is taken in.
import { useEffect, useRef, useState } from 'preact/hooks'
import { ApiError, call, data, SLOW, type Form } from '../api'
import { useFileDrop } from '../drop'
import { explain } from '../errors'
import { Fields, sent, useForm, type FieldRow } from '../form'
import { base64 } from '../format'
import { shownLines, type Report } from '../model'
import { COMPANIONS, NEEDED, isProfile, match, references, type Companion } from '../ovpn'
import { all, atMost, required } from '../rules'
import { t } from '../texts'
import {
  Badge,
  Button,
  Dialog,
  Failure,
  Facts,
  Icon,
  Notice,
  Spinner,
  Switch,
  Table,
  say,
  useJob,
} from '../ui'
import { FileButton } from './clients'

const WRONG_FILES = 61

interface Judgement {
  auth_user_pass: boolean
  server_ip: string
  compress?: boolean
  files: Partial<Record<string, string>>
}
type Verdict =
  | { state: 'asking' }
  | { state: 'good'; judgement: Judgement; report: Report | null }
  | { state: 'bad'; failure: unknown; report: Report | null }

interface Candidate {
  id: number
  file: File
  companions: Partial<Record<Companion, File>>
}

// The same with those of the files that it names and lacks; the very same where there are none.
async function completed(one: Candidate, files: readonly File[]): Promise<Candidate> {
  const companions = { ...one.companions }
  for (const [companion, name] of Object.entries(references(await one.file.text()))) {
    const found = match(name, files)
    if (found) companions[companion as Companion] ??= found
  }
  return Object.keys(companions).length === Object.keys(one.companions).length
    ? one
    : { ...one, companions }
}

let last = 0
// What is there, completed by more files, and the profiles among these. Files that belong to nothing are judged as well.
async function joined(
  old: readonly Candidate[],
  files: readonly File[],
): Promise<{ candidates: Candidate[]; unused: File[] }> {
  const profiles = files.filter(file => isProfile(file.name))
  const kept = await Promise.all(old.map(one => completed(one, files)))
  const belongs = kept.some((one, at) => one !== old[at])
  const chosen = profiles.length > 0 || belongs ? profiles : files.slice(0, 1)
  const added = await Promise.all(
    chosen.map(file => completed({ id: ++last, file, companions: {} }, files)),
  )
  const candidates = [...kept, ...added]
  const used = new Set(candidates.flatMap(one => [one.file, ...Object.values(one.companions)]))
  return { candidates, unused: files.filter(file => !used.has(file)) }
}

const upload = (one: Candidate, wanted: readonly Companion[]): Form => {
  const form: Form = { ovpn: one.file }
  for (const name of wanted) if (one.companions[name]) form[name] = one.companions[name]
  return form
}

// The program's own names of the two lists, which say the opposite.
interface FilesAnswer {
  missing?: string[] // brought, and not named
  excessive?: string[] // named, and not brought
}

const rowsFor = (judgement: Judgement): readonly FieldRow[] => [
  { name: 'name', label: 'name', rule: all(required, atMost(600)) },
  {
    name: 'user',
    label: 'client.user',
    rule: judgement.auth_user_pass ? all(required, atMost(64)) : atMost(64),
    when: () => judgement.auth_user_pass,
  },
  {
    name: 'pass',
    label: 'client.pass',
    kind: 'password',
    rule: judgement.auth_user_pass ? all(required, atMost(512)) : atMost(512),
    when: () => judgement.auth_user_pass,
  },
  { name: 'reconnect', label: 'client.reconnect', kind: 'switch' },
]

type ReadyProps = {
  one: Candidate
  judgement: Judgement
  needs: Partial<Record<Companion, string>>
  onDone: () => void
  children: preact.ComponentChildren
}
function Ready({ one, judgement, needs, onDone, children }: ReadyProps) {
  const rows = rowsFor(judgement)
  const form = useForm(rows, {
    name: one.file.name.replace(/\.(ovpn|conf)$/i, ''),
    user: '',
    pass: '',
    reconnect: true,
  })
  const job = useJob()
  const lacking = Object.keys(needs).some(name => !one.companions[name as Companion])

  const take = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    await job.run('import', async () => {
      const { pass, ...values } = sent(rows, form.values)
      await call(
        'config/import',
        { ...upload(one, COMPANIONS), ...values, pass: pass ? base64(pass) : undefined },
        SLOW,
      )
      say('import.done')
      onDone()
    })
  }
  return (
    <form onSubmit={event => void take(event)} noValidate>
      <Facts
        rows={[
          [t('import.server'), judgement.server_ip],
          [
            t('import.login'),
            t(judgement.auth_user_pass ? 'import.byPassword' : 'import.byCertificate'),
          ],
        ]}
      />
      {children}
      <Fields rows={rows} form={form} />
      <Failure failure={job.failure} />
      <div class="row end">
        <Button kind="primary" submit disabled={lacking} busy={job.busy === 'import'}>
          {t('import.take')}
        </Button>
      </div>
    </form>
  )
}

type CardProps = {
  one: Candidate
  onChange: (one: Candidate) => void
  onGone: (imported: boolean) => void
}
function CandidateCard({ one, onChange, onGone }: CardProps) {
  const [verdict, setVerdict] = useState<Verdict>({ state: 'asking' })
  const [named, setNamed] = useState<Partial<Record<Companion, string>>>({})

  useEffect(() => {
    let alive = true
    setVerdict({ state: 'asking' })
    const ask = async () => {
      const names = references(await one.file.text())
      if (!alive) return
      setNamed(names)
      // An appliance without the report still imports.
      const report = await data<Report>('config/report', upload(one, COMPANIONS), SLOW).catch(
        () => null,
      )
      try {
        const judgement = await data<Judgement>('config/check', upload(one, NEEDED), SLOW)
        if (alive) setVerdict({ state: 'good', judgement, report })
      } catch (failure) {
        if (alive) setVerdict({ state: 'bad', failure, report })
      }
    }
    void ask()
    return () => {
      alive = false
    }
  }, [one])

  const files = (
    <ul class="rows">
      {Object.entries(named).map(([name, file]) => {
        const companion = name as Companion
        const brought = one.companions[companion]
        return (
          <li key={name}>
            <span>
              {t('import.needs', { option: name })} <bdi class="mono">{file}</bdi>
            </span>
            <span class="row">
              {brought ? (
                <Badge tone="good">{t('import.there')}</Badge>
              ) : (
                <Badge tone="warn">{t('import.lacking')}</Badge>
              )}
              <FileButton
                single
                label={t(brought ? 'import.other' : 'import.choose')}
                onFiles={([chosen]) =>
                  chosen &&
                  onChange({ ...one, companions: { ...one.companions, [companion]: chosen } })
                }
              />
            </span>
          </li>
        )
      })}
    </ul>
  )

  return (
    <section class="card candidate" aria-label={one.file.name}>
      <header>
        <h3>
          <bdi>{one.file.name}</bdi>
        </h3>
        <Button
          kind="quiet"
          icon="close"
          label={t('import.drop', { name: one.file.name })}
          onClick={() => onGone(false)}
        />
      </header>
      {verdict.state === 'asking' && <Spinner label={t('import.asking')} />}
      {verdict.state === 'bad' && (
        <>
          <Notice tone="bad">
            <Judged failure={verdict.failure} named={named} />
          </Notice>
          {verdict.report && <ReportTable report={verdict.report} />}
          {files}
          <div class="row">
            <Button onClick={() => onChange({ ...one })}>{t('retry')}</Button>
          </div>
        </>
      )}
      {verdict.state === 'good' && (
        <Ready one={one} judgement={verdict.judgement} needs={named} onDone={() => onGone(true)}>
          {verdict.report && <ReportTable report={verdict.report} />}
          {files}
        </Ready>
      )}
    </section>
  )
}

const TONES = {
  kept: 'good',
  changed: 'busy',
  dropped: 'off',
  refused: 'bad',
  needs: 'warn',
} as const

// What becomes of each line, before anything is stored.
function ReportTable({ report }: { report: Report }) {
  const [all, setAll] = useState(false)
  const lines = shownLines(report, all)
  return (
    <>
      {!report.importable && report.reason && <Notice tone="bad">{report.reason}</Notice>}
      {report.certificates.map(one => (
        <p key={`${one.role}|${one.subject}|${one.days}`} class={one.days < 0 ? 'error' : 'soft'}>
          {t(one.days < 0 ? 'report.expired' : 'report.days', {
            role: one.role,
            name: one.subject,
            n: Math.abs(one.days),
          })}
        </p>
      ))}
      <Switch label={t('report.all')} on={all} onChange={setAll} />
      {lines.length === 0 ? (
        <p class="soft">{t('report.same')}</p>
      ) : (
        <Table
          label={t('report.title')}
          heads={[t('report.line'), t('report.text'), t('report.fate'), t('report.why')]}
        >
          {lines.map(line => (
            <tr key={line.n}>
              <td>{line.n}</td>
              <td>
                <bdi class="mono">{line.text}</bdi>
              </td>
              <td>
                <Badge tone={TONES[line.fate]}>{t(`report.${line.fate}`)}</Badge>
              </td>
              <td>{line.why}</td>
            </tr>
          ))}
        </Table>
      )}
      {report.added.length > 0 && (
        <p class="soft">{t('report.added', { options: report.added.join(', ') })}</p>
      )}
    </>
  )
}

// From the names that the checker has for the files to what they are in the profile, which names them otherwise.
const ROLES: Partial<Record<string, Companion>> = {
  'ca.crt': 'ca',
  'client.crt': 'cert',
  'client.key': 'key',
}

// The checker's answer in words.
function Judged({
  failure,
  named,
}: {
  failure: unknown
  named: Partial<Record<Companion, string>>
}) {
  const nameOf = (file: string) => named[ROLES[file] ?? 'crl_verify'] ?? file
  const { what, advice } = explain(failure)
  const lists =
    failure instanceof ApiError && failure.code === WRONG_FILES
      ? (failure.data as FilesAnswer | undefined)
      : undefined
  if (!lists)
    return (
      <>
        <strong>{what}</strong> {advice}
      </>
    )
  return (
    <>
      {lists.excessive && lists.excessive.length > 0 && (
        <p>{t('import.notBrought', { files: lists.excessive.map(nameOf).join(', ') })}</p>
      )}
      {lists.missing && lists.missing.length > 0 && (
        <p>{t('import.notNamed', { files: lists.missing.join(', ') })}</p>
      )}
    </>
  )
}

export function ImportDialog({
  files,
  onClose,
  onChanged,
}: {
  files: File[]
  onClose: () => void
  onChanged: () => void
}) {
  const [candidates, setCandidates] = useState<readonly Candidate[]>([])
  const [unused, setUnused] = useState<readonly string[]>([])
  const latest = useRef(candidates) // files are read meanwhile
  const put = (next: readonly Candidate[]) => {
    latest.current = next
    setCandidates(next)
  }
  const add = async (more: readonly File[]) => {
    if (more.length === 0) return
    const next = await joined(latest.current, more)
    put(next.candidates)
    setUnused(next.unused.map(file => file.name))
  }
  useEffect(() => void add(files), [])
  const over = useFileDrop(true, more => void add(more))
  const gone = (id: number, imported: boolean) => {
    const rest = latest.current.filter(one => one.id !== id)
    put(rest)
    if (imported) onChanged()
    if (imported && rest.length === 0) onClose()
  }
  return (
    <Dialog title={t('import.title')} onClose={onClose} wide>
      <div class={over ? 'dropzone over' : 'dropzone'}>
        <Icon name="download" />
        <p>{t('import.zone')}</p>
        <FileButton label={t('import.choose')} onFiles={more => void add(more)} />
      </div>
      {unused.length > 0 && <Notice>{t('import.unused', { files: unused.join(', ') })}</Notice>}
      {candidates.map(one => (
        <CandidateCard
          key={one.id}
          one={one}
          onChange={changed =>
            put(latest.current.map(other => (other.id === one.id ? changed : other)))
          }
          onGone={imported => gone(one.id, imported)}
        />
      ))}
    </Dialog>
  )
}
